// SPDX-License-Identifier: MIT
//
// The component's insides for tests and benchmarks: recordsets with rows from
// nowhere, parameter lists without a command, and the translation of parameters
// in both directions. A program that links zirdb_component_workbench has the
// whole library built in, instead of linking the shared one.

#ifndef ZIRDB_TESTS_SUPPORT_COMPONENT_WORKBENCH_H
#define ZIRDB_TESTS_SUPPORT_COMPONENT_WORKBENCH_H

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "zir.h"
#include "zirdb.h"
#include "zirdb_odbc.h"

namespace workbench {

// ---------------------------------------------------------------------------
// Recordsets
// ---------------------------------------------------------------------------

struct Null {};
using Blob = std::vector<unsigned char>;
/// What a database sends: NULL, a truth value, a number, UTF-8, bytes.
using Cell = std::variant<Null, bool, std::int64_t, double, std::string, Blob>;
using Row = std::vector<Cell>;

/// A recordset as a statement with columns makes it: open, on its first row or
/// at the end. Column names are UTF-8; the SQL type of all columns is 12. Rows
/// have one cell per column, of which there is at least one.
InterfacePtr<IZIRDBRecordset> recordset(const std::vector<std::string>& columns,
                                        const std::vector<Row>& rows);

/// The same, row by row, for many rows: `cell(row, column)` is asked for each.
InterfacePtr<IZIRDBRecordset> recordset(const std::vector<std::string>& columns,
                                        std::size_t rows,
                                        Cell (*cell)(std::size_t row,
                                                     std::size_t column));

/// The recordset that a command makes for a statement without columns.
InterfacePtr<IZIRDBRecordset> recordset_without_columns();

/// What a connection does to its recordsets when it closes.
void close_by_connection(IZIRDBRecordset* recordset);

/// Makes EOF true on the last row already, which nothing else does.
void set_eof_on_last_row(IZIRDBRecordset* recordset);

// ---------------------------------------------------------------------------
// Parameters
// ---------------------------------------------------------------------------

/// A parameter as a command creates it: nothing is checked.
InterfacePtr<IZIRDBParameter> parameter(const std::wstring& name, long type,
                                        long direction, long size,
                                        const VARIANT& value);

/// An empty list.
InterfacePtr<IZIRDBParameters> parameters();

/// A second object over the same list.
InterfacePtr<IZIRDBParameters> same_parameters(IZIRDBParameters* parameters);

/// Objects that were made without a record, and without a list.
InterfacePtr<IZIRDBParameter> parameter_without_record();
InterfacePtr<IZIRDBParameters> parameters_without_list();

/// Adds a slot without a record to the list.
void append_null(IZIRDBParameters* parameters);

// ---------------------------------------------------------------------------
// Translation
// ---------------------------------------------------------------------------

/// db_parameter_to_odbc_parameter on the record behind `parameter`.
HRESULT to_odbc(IZIRDBParameter* parameter, ZirdbOdbcParameter* odbc);

/// Every parameter takes its value from the one at the same position.
HRESULT write_back(IZIRDBParameters* parameters,
                   const std::vector<ZirdbOdbcParameter>& odbc);

/// What happens instead where values are not written back.
void clear_outputs(IZIRDBParameters* parameters);

/// build_dispatch_execute_parameters; the list that it fills, also on failure.
HRESULT from_array(const VARIANT* array,
                   InterfacePtr<IZIRDBParameters>* parameters);

/// The script's array takes the parameters' values.
HRESULT write_back_array(IZIRDBParameters* parameters, SAFEARRAY* array);

// The functions of these names.
HRESULT variant_to_long_long(const VARIANT* value, long long* number);
HRESULT variant_to_bstr_value(const VARIANT* value, _bstr_t* text);
HRESULT variant_to_byte_array(const VARIANT* value,
                              std::vector<unsigned char>* bytes);
std::string utf8_from_bstr(const wchar_t* text);
std::wstring utf32_from_utf8(const std::string& text);
std::wstring wstring_from_bstr(wchar_t* text);
HRESULT make_byte_array_variant(const std::vector<unsigned char>& bytes,
                                VARIANT* value);

// ---------------------------------------------------------------------------
// Errors of the calling thread
// ---------------------------------------------------------------------------

struct Error {
  HRESULT code;
  std::wstring source;
  std::wstring description;
};

/// The record of the calling thread; all zero and empty when there is none.
Error last_error();

/// Leaves a record behind, as a failing operation does.
void set_error(HRESULT code, const wchar_t* source, const wchar_t* description);

/// populate_excepinfo_from_db_error.
void fill_exception(EXCEPINFO* info, HRESULT code, const wchar_t* source);

/// Objects alive (factories do not count) and server locks held.
std::uint32_t objects_alive();
std::uint32_t locks_held();

}  // namespace workbench

#endif  // ZIRDB_TESTS_SUPPORT_COMPONENT_WORKBENCH_H
