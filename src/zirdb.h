// SPDX-License-Identifier: MIT
//
// zirdb: the database automation component. Connections, commands and
// recordsets that scripts drive late-bound through IDispatch and C++ hosts
// through the interfaces below.
//
// Sections: classes and interfaces; enumerations; member ids; recordsets;
// parameters; connections and commands; entry points.
//
// Ideas that carry the rest:
//  - A host asks DllGetClassObject for a class factory, or lets the runtime's
//    CoCreateInstance and CoCreateInstanceByName do so. Every object answers
//    IUnknown, IDispatch and one interface of its own.
//  - Operations return a result code and store through out-pointers; no
//    exception leaves one. A NULL out-pointer is E_INVALIDARG, a lack of memory
//    E_OUTOFMEMORY. Strings, values and interfaces that an operation stores are
//    the caller's to free; what the caller passes in stays the caller's.
//  - What went wrong is kept per thread: a late-bound call that fails with
//    DISP_E_EXCEPTION finds code, source and text in its EXCEPINFO, which must
//    have been initialised: what it held is freed.
//  - An object, and what shares its state, belongs to one thread at a time: a
//    connection with its recordsets, their fields and the commands that hold
//    it; a command with its parameters. Counting references is safe on any
//    thread, but the last one to go takes the object with it: it disconnects a
//    connection and leaves the connection's list of recordsets.

#ifndef ZIRDB_H
#define ZIRDB_H

#include "zir.h"

// ---------------------------------------------------------------------------
// Classes and interfaces
// ---------------------------------------------------------------------------

extern "C" {
/// "ZIRDB.Connection" {A3B9D97A-3DE2-4287-9A7B-5EF21F449C1E}
extern ZIRDB_API const CLSID CLSID_ZIRDBConnection;
/// "ZIRDB.Command" {B250EB07-2332-4C6D-B50D-357641DEAA0D}
extern ZIRDB_API const CLSID CLSID_ZIRDBCommand;
/// "ZIRDB.Recordset" {8EEDA5E6-0575-4F26-B43A-ED25F95E993B}
extern ZIRDB_API const CLSID CLSID_ZIRDBRecordset;

/// {42A6B313-5986-4037-AE9D-E90AD9B7BBA4}
extern ZIRDB_API const IID IID_IZIRDBConnection;
/// {8E32A13D-FF0A-410C-80B8-FB517D850222}
extern ZIRDB_API const IID IID_IZIRDBCommand;
/// {E844F0B5-B612-48B1-BA57-AB0BC2F08DF9}
extern ZIRDB_API const IID IID_IZIRDBRecordset;
/// {051FBC3E-D6EE-4C23-A4BD-FCB61CC0E093}
extern ZIRDB_API const IID IID_IZIRDBFields;
/// {CFC4200C-426C-40D5-8A39-7B96B8D6323F}
extern ZIRDB_API const IID IID_IZIRDBField;
/// {9D1D978C-2A6F-459E-8A8F-1BC0D8276B54}
extern ZIRDB_API const IID IID_IZIRDBParameters;
/// {1C1C4279-4D78-47E8-BA57-4E8B8A3C4A11}
extern ZIRDB_API const IID IID_IZIRDBParameter;
}

// ---------------------------------------------------------------------------
// Enumerations
// ---------------------------------------------------------------------------

/// The value of every State property.
enum ZIRDBStateEnum : long { ZIRDB_STATE_CLOSED = 0, ZIRDB_STATE_OPEN = 1 };

/// How a parameter is sent.
enum ZIRDBDataTypeEnum : long {
  ZIRDB_AD_EMPTY = 0,  ///< not declared: by the type of the value
  ZIRDB_AD_INTEGER = 3,
  ZIRDB_AD_BOOLEAN = 11,
  ZIRDB_AD_BIGINT = 20,
  ZIRDB_AD_GUID = 72,
  ZIRDB_AD_VARCHAR = 200,
  ZIRDB_AD_VARWCHAR = 202,
  ZIRDB_AD_VARBINARY = 204
};

/// Which way a parameter's value travels.
enum ZIRDBParameterDirectionEnum : long {
  ZIRDB_AD_PARAM_UNKNOWN = 0,  ///< sent as an input
  ZIRDB_AD_PARAM_INPUT = 1,
  ZIRDB_AD_PARAM_OUTPUT = 2,
  ZIRDB_AD_PARAM_INPUT_OUTPUT = 3,
  ZIRDB_AD_PARAM_RETURN_VALUE = 4
};

/// What a command's text is. A new command's type is ZIRDB_AD_CMD_UNKNOWN.
enum ZIRDBCommandTypeEnum : long {
  ZIRDB_AD_CMD_UNSPECIFIED = -1,  ///< as ZIRDB_AD_CMD_TEXT
  ZIRDB_AD_CMD_TEXT = 1,          ///< SQL, sent as it is
  /// A procedure's name, sent as "{CALL name(?, ...)}" with a marker for each
  /// parameter, or "{? = CALL ...}" if the first one is a return value.
  ZIRDB_AD_CMD_STORED_PROC = 4,
  /// SQL, or "{CALL ...}" with the values of a script's array.
  ZIRDB_AD_CMD_UNKNOWN = 8
};

// ---------------------------------------------------------------------------
// Member ids
//
// What IDispatch::Invoke takes; GetIDsOfNames finds them by name, whatever the
// case of its letters.
// ---------------------------------------------------------------------------

/// DISPID_VALUE, which has no name, executes a text with parameter values.
enum ZIRDBConnectionDispId : DISPID {
  DISPID_ZIRDB_CONNECTION_CONNECTIONSTRING = 1,
  DISPID_ZIRDB_CONNECTION_STATE = 2,
  DISPID_ZIRDB_CONNECTION_OPEN = 3,
  DISPID_ZIRDB_CONNECTION_CLOSE = 4,
  DISPID_ZIRDB_CONNECTION_EXECUTE = 5
};

enum ZIRDBCommandDispId : DISPID {
  DISPID_ZIRDB_COMMAND_ACTIVECONNECTION = 1,
  DISPID_ZIRDB_COMMAND_COMMANDTEXT = 2,
  DISPID_ZIRDB_COMMAND_EXECUTE = 3,
  DISPID_ZIRDB_COMMAND_CREATEPARAMETER = 4,
  DISPID_ZIRDB_COMMAND_PARAMETERS = 5,
  DISPID_ZIRDB_COMMAND_COMMANDTYPE = 6
};

/// DISPID_VALUE does the same as Fields.
enum ZIRDBRecordsetDispId : DISPID {
  DISPID_ZIRDB_RECORDSET_FIELDS = 1,
  DISPID_ZIRDB_RECORDSET_STATE = 2,
  DISPID_ZIRDB_RECORDSET_EOF = 3,
  DISPID_ZIRDB_RECORDSET_BOF = 4,
  DISPID_ZIRDB_RECORDSET_MOVENEXT = 5,
  DISPID_ZIRDB_RECORDSET_CLOSE = 6,
  DISPID_ZIRDB_RECORDSET_RECORDCOUNT = 7,
  DISPID_ZIRDB_RECORDSET_MOVEFIRST = 8,
  DISPID_ZIRDB_RECORDSET_MOVELAST = 9,
  DISPID_ZIRDB_RECORDSET_MOVEPREVIOUS = 10,
  DISPID_ZIRDB_RECORDSET_FOREACH = 11
};

/// DISPID_NEWENUM, under the names _NewEnum and NewEnum, makes an enumerator.
enum ZIRDBFieldsDispId : DISPID {
  DISPID_ZIRDB_FIELDS_ITEM = 0,
  DISPID_ZIRDB_FIELDS_COUNT = 1
};

enum ZIRDBFieldDispId : DISPID {
  DISPID_ZIRDB_FIELD_VALUE = 0,
  DISPID_ZIRDB_FIELD_NAME = 1
};

enum ZIRDBParametersDispId : DISPID {
  DISPID_ZIRDB_PARAMETERS_ITEM = 0,
  DISPID_ZIRDB_PARAMETERS_COUNT = 1,
  DISPID_ZIRDB_PARAMETERS_APPEND = 2
};

enum ZIRDBParameterDispId : DISPID {
  DISPID_ZIRDB_PARAMETER_VALUE = 0,
  DISPID_ZIRDB_PARAMETER_NAME = 1,
  DISPID_ZIRDB_PARAMETER_TYPE = 2,
  DISPID_ZIRDB_PARAMETER_DIRECTION = 3,
  DISPID_ZIRDB_PARAMETER_SIZE = 4
};

// ---------------------------------------------------------------------------
// Recordsets
//
// The order of the operations is that of the vtable slots, behind the three of
// IUnknown.
// ---------------------------------------------------------------------------

/// One column: its name, and its value in the row where the recordset stands.
struct IZIRDBField : IUnknown {
  /// The column's name. 0x800A0D5C once the recordset is closed.
  virtual HRESULT get_Name(BSTR* name) = 0;
  /// The value in the current row, a copy. At the end of the rows: the value
  /// that was current when the field was made or, if it was made there, that of
  /// the row where its Fields object was made; 0x800A0BCD if that was made on
  /// none. 0x800A0D5C once the recordset is closed. A field from an enumerator
  /// keeps its name and value for good, and with them the rows in memory.
  virtual HRESULT get_Value(VARIANT* value) = 0;

 protected:
  ~IZIRDBField() = default;
};

/// The columns of a recordset.
struct IZIRDBFields : IUnknown {
  /// The number of columns; 0 after the connection closed the recordset.
  virtual HRESULT get_Count(long* count) = 0;
  /// A new field, by name (the first match, ignoring case) or by position from
  /// 0. 0x800A0CC1 when there is none, 0x800A0E78 when the recordset was
  /// closed, 0x80004005 when its connection closed it.
  virtual HRESULT Item(VARIANT index, IZIRDBField** field) = 0;

 protected:
  ~IZIRDBFields() = default;
};

/// The rows of one result, all in memory, and a cursor that goes forward.
/// When closed, everything but get_State and get_Fields fails with 0x800A0E78.
struct IZIRDBRecordset : IUnknown {
  /// A new collection of the columns, which reads the row where the recordset
  /// stands at the time. On a closed recordset it only counts them; after the
  /// connection closed it, it is empty.
  virtual HRESULT get_Fields(IZIRDBFields** fields) = 0;
  /// A ZIRDBStateEnum.
  virtual HRESULT get_State(long* state) = 0;
  /// Whether the cursor is behind the last row.
  virtual HRESULT get_EOF(VARIANT_BOOL* at_end) = 0;
  /// Whether there are no rows, or MoveLast was tried and not MoveFirst since.
  virtual HRESULT get_BOF(VARIANT_BOOL* at_start) = 0;
  /// Always -1: unknown, as for a forward cursor.
  virtual HRESULT get_RecordCount(long* count) = 0;
  /// To the first row; 0x800A0BCD without rows.
  virtual HRESULT MoveFirst() = 0;
  /// Fails with 0x80040E24 and leaves the cursor behind the last row, BOF set.
  virtual HRESULT MoveLast() = 0;
  /// Fails with 0x800A0C93.
  virtual HRESULT MovePrevious() = 0;
  /// To the next row or, from the last one, to the end; there 0x800A0BCD.
  virtual HRESULT MoveNext() = 0;
  /// Drops the rows, as far as no enumerator or field from one keeps them.
  virtual HRESULT Close() = 0;

 protected:
  ~IZIRDBRecordset() = default;
};

// ---------------------------------------------------------------------------
// Parameters
// ---------------------------------------------------------------------------

/// One parameter of a command. All objects over the same parameter, and the
/// command, see each change at once.
struct IZIRDBParameter : IUnknown {
  virtual HRESULT get_Name(BSTR* name) = 0;
  /// Any text; NULL is the empty one.
  virtual HRESULT put_Name(BSTR name) = 0;
  /// A copy of the value.
  virtual HRESULT get_Value(VARIANT* value) = 0;
  /// Stores a copy of any value; whether it fits the type shows when the
  /// command is executed.
  virtual HRESULT put_Value(VARIANT value) = 0;
  /// A ZIRDBDataTypeEnum.
  virtual HRESULT get_Type(long* type) = 0;
  /// 0x800A0BB9 for a number that is not in the enumeration.
  virtual HRESULT put_Type(long type) = 0;
  /// A ZIRDBParameterDirectionEnum.
  virtual HRESULT get_Direction(long* direction) = 0;
  /// 0x800A0BB9 for a number that is not in the enumeration.
  virtual HRESULT put_Direction(long direction) = 0;
  /// Characters of a text, bytes of a binary value.
  virtual HRESULT get_Size(long* size) = 0;
  /// Any number; 0 and less declare no size.
  virtual HRESULT put_Size(long size) = 0;

 protected:
  ~IZIRDBParameter() = default;
};

/// The parameters of a command, in the order of its markers.
struct IZIRDBParameters : IUnknown {
  virtual HRESULT get_Count(long* count) = 0;
  /// A new object over a parameter, by name (the first match, ignoring case) or
  /// by position from 0. 0x800A0CC1 when there is none.
  virtual HRESULT Item(VARIANT index, IZIRDBParameter** parameter) = 0;
  /// Adds a parameter at the end. An object of this library shares its values
  /// from then on; of any other a copy is taken, through its getters, the first
  /// failure of which is returned.
  virtual HRESULT Append(IZIRDBParameter* parameter) = 0;

 protected:
  ~IZIRDBParameters() = default;
};

// ---------------------------------------------------------------------------
// Connections and commands
// ---------------------------------------------------------------------------

/// A database connection through ODBC. Its last Release does what Close does.
struct IZIRDBConnection : IUnknown {
  /// The string last set or, once opened, the one used: with the user and the
  /// password appended.
  virtual HRESULT get_ConnectionString(BSTR* connection_string) = 0;
  /// 0x80040711 while open.
  virtual HRESULT put_ConnectionString(BSTR connection_string) = 0;
  /// A ZIRDBStateEnum.
  virtual HRESULT get_State(long* state) = 0;
  /// Connects with `connection_string` or, if that is empty, the one set
  /// before; "UID=user;" and "PWD=password;" are appended as they stand unless
  /// empty. `options` has no meaning. 0x80040711 while open, E_INVALIDARG
  /// without any string, 0x80040710 with the driver's text.
  virtual HRESULT Open(BSTR connection_string, BSTR user, BSTR password,
                       long options) = 0;
  /// Disconnects and closes every recordset made here. Succeeds when closed.
  virtual HRESULT Close() = 0;
  /// Runs a statement: stores a recordset when it has columns, else NULL. The
  /// number of affected rows (-1 with columns) is stored through
  /// `rows_affected` if that is VT_BYREF with VT_I2 or VT_UI2 (2 bytes), VT_UI4
  /// (4 bytes), VT_I4, VT_I8 or VT_UI8 (8 bytes each), or VT_VARIANT, which
  /// becomes VT_I8; anything else stays as it is. `options` has no meaning.
  /// 0x800A0E78 when closed, 0x80040E0C for an empty text, 0x80040712 with the
  /// driver's text: with many drivers also for a change that matches no row.
  virtual HRESULT Execute(BSTR text, VARIANT* rows_affected, long options,
                          IZIRDBRecordset** recordset) = 0;

 protected:
  ~IZIRDBConnection() = default;
};

/// A statement or stored procedure with parameters.
struct IZIRDBCommand : IUnknown {
  /// The connection, NULL when there is none.
  virtual HRESULT get_ActiveConnection(IDispatch** connection) = 0;
  /// Takes a reference; NULL drops the one held. 0x800A0E7D for an object that
  /// is no connection, which a late-bound put refuses with DISP_E_TYPEMISMATCH.
  virtual HRESULT putref_ActiveConnection(IDispatch* connection) = 0;
  virtual HRESULT get_CommandText(BSTR* text) = 0;
  /// Any text; NULL is the empty one.
  virtual HRESULT put_CommandText(BSTR text) = 0;
  /// A ZIRDBCommandTypeEnum.
  virtual HRESULT get_CommandType(long* type) = 0;
  /// E_INVALIDARG for a number that is not in the enumeration.
  virtual HRESULT put_CommandType(long type) = 0;
  /// A new parameter, which belongs to the command only once it is appended to
  /// its parameters. Nothing is checked; a NULL for an output becomes Empty.
  virtual HRESULT CreateParameter(BSTR name, long type, long direction,
                                  long size, VARIANT value,
                                  IZIRDBParameter** parameter) = 0;
  /// A new object over the command's one list of parameters.
  virtual HRESULT get_Parameters(IZIRDBParameters** parameters) = 0;
  /// Runs the command and stores a recordset, closed when there are no columns.
  /// `rows_affected` is that of IZIRDBConnection::Execute; `options` goes to
  /// connections that are not this library's, which run no parameters.
  ///
  /// Afterwards every parameter holds what came back, inputs too, in the type
  /// that was sent; of procedures, and of texts that call sp_executesql,
  /// nothing comes back, and outputs become Empty. Late-bound, an array of
  /// values may stand for the parameters: its elements are replaced then.
  ///
  /// 0x800A0E7D without an open connection, 0x80040E0C without a text; the code
  /// of the conversion for a value that does not fit its parameter; 0x80040E14
  /// for a system procedure with parameters and for outputs in a text;
  /// 0x80040E21, with an array 0x800A0E7C, for a text that calls a procedure
  /// with parameters; E_NOTIMPL for a return value that is not the first
  /// parameter and for parameters on a foreign connection; else what the
  /// connection says.
  virtual HRESULT Execute(VARIANT* rows_affected, long options,
                          IZIRDBRecordset** recordset) = 0;

 protected:
  ~IZIRDBCommand() = default;
};

// ---------------------------------------------------------------------------
// Entry points
// ---------------------------------------------------------------------------

extern "C" {

/// Stores a class factory with one reference for the caller. `riid` is
/// IID_IClassFactory or IID_IUnknown, else E_NOINTERFACE. `clsid` is one of the
/// three classes or CLSID_NULL: then `*factory` must hold, on entry, a class
/// name ("Connection", "Command" or "Recordset" in any case) or NULL. Unknown
/// classes give CLASS_E_CLASSNOTAVAILABLE.
ZIRDB_API HRESULT DllGetClassObject(REFCLSID clsid, REFIID riid,
                                    void** factory);

/// S_OK when no object of this library is alive and no factory has locked it,
/// else S_FALSE. Factories themselves do not count.
ZIRDB_API HRESULT DllCanUnloadNow();

}  // extern "C"

#endif  // ZIRDB_H
