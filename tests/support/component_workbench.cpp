// SPDX-License-Identifier: MIT
//
// Sees the component's classes, which are local to its source, by being
// compiled together with it.

#include "support/component_workbench.h"

#include <cstdlib>

#include "../src/zirdb.cpp"  // NOLINT(bugprone-suspicious-include)

namespace {

// Explicit instantiation may name private members: that reaches them without a
// door for tests in the classes themselves.
bool& eof_on_last_row(RecordsetObject& recordset);
template <bool RecordsetObject::*kMember>
struct ReachEofOnLastRow {
  friend bool& eof_on_last_row(RecordsetObject& recordset) {
    return recordset.*kMember;
  }
};
template struct ReachEofOnLastRow<&RecordsetObject::eof_on_last_row_>;

std::shared_ptr<DbParameterList>& list_of(ParametersObject& parameters);
template <std::shared_ptr<DbParameterList> ParametersObject::*kMember>
struct ReachList {
  friend std::shared_ptr<DbParameterList>& list_of(
      ParametersObject& parameters) {
    return parameters.*kMember;
  }
};
template struct ReachList<&ParametersObject::parameters_>;

// A test that passes a stranger is wrong.
template <class Object, class Interface>
Object& inside(Interface* object) {
  auto* const own = dynamic_cast<Object*>(object);
  if (own == nullptr) std::abort();
  return *own;
}

DbParameterList& list_behind(IZIRDBParameters* parameters) {
  return *list_of(inside<ParametersObject>(parameters));
}

template <class Interface, class Object>
InterfacePtr<Interface> as(InterfacePtr<Object> object) {
  return InterfacePtr<Interface>::adopt(object.detach());
}

void add_cell(RowStoreBuilder& builder, const workbench::Cell& cell) {
  switch (cell.index()) {
    case 0:
      return builder.null_cell();
    case 1:
      return builder.bool_cell(std::get<bool>(cell));
    case 2:
      return builder.int64_cell(std::get<std::int64_t>(cell));
    case 3:
      return builder.double_cell(std::get<double>(cell));
    case 4:
      return builder.text_cell(std::get<std::string>(cell));
    default:
      const auto& blob = std::get<workbench::Blob>(cell);
      return builder.binary_cell(blob.data(), blob.size());
  }
}

// `cell(row, column)` is asked for every cell.
template <class CellOf>
InterfacePtr<IZIRDBRecordset> build(const std::vector<std::string>& columns,
                                    std::size_t rows, CellOf cell_of) {
  RowStoreBuilder builder;
  if (!columns.empty()) builder.begin_columns(columns.size());
  for (const std::string& name : columns) builder.column(name, 12);
  for (std::size_t row = 0; row < rows; ++row) {
    builder.begin_row();
    for (std::size_t column = 0; column < columns.size(); ++column) {
      add_cell(builder, cell_of(row, column));
    }
    builder.end_row();
  }
  return as<IZIRDBRecordset>(make<RecordsetObject>(builder.take()));
}

}  // namespace

namespace workbench {

InterfacePtr<IZIRDBRecordset> recordset(const std::vector<std::string>& columns,
                                        const std::vector<Row>& rows) {
  return build(columns, rows.size(),
               [&](std::size_t row, std::size_t column) -> const Cell& {
                 return rows.at(row).at(column);
               });
}

InterfacePtr<IZIRDBRecordset> recordset(const std::vector<std::string>& columns,
                                        std::size_t rows,
                                        Cell (*cell)(std::size_t row,
                                                     std::size_t column)) {
  return build(columns, rows, cell);
}

InterfacePtr<IZIRDBRecordset> recordset_without_columns() {
  return as<IZIRDBRecordset>(
      make<RecordsetObject>(RecordsetObject::WithoutColumns{}));
}

void close_by_connection(IZIRDBRecordset* recordset) {
  inside<RecordsetObject>(recordset).on_connection_closed();
}

void set_eof_on_last_row(IZIRDBRecordset* recordset) {
  eof_on_last_row(inside<RecordsetObject>(recordset)) = true;
}

InterfacePtr<IZIRDBParameter> parameter(const std::wstring& name, long type,
                                        long direction, long size,
                                        const VARIANT& value) {
  auto made = std::make_shared<DbParameter>();
  made->name = name;
  made->type = type;
  made->direction = direction;
  made->size = size;
  VariantCopy(&made->value, &value);
  return as<IZIRDBParameter>(make<ParameterObject>(std::move(made)));
}

InterfacePtr<IZIRDBParameters> parameters() {
  return as<IZIRDBParameters>(
      make<ParametersObject>(std::make_shared<DbParameterList>()));
}

InterfacePtr<IZIRDBParameters> same_parameters(IZIRDBParameters* parameters) {
  return as<IZIRDBParameters>(
      make<ParametersObject>(list_of(inside<ParametersObject>(parameters))));
}

InterfacePtr<IZIRDBParameter> parameter_without_record() {
  return as<IZIRDBParameter>(make<ParameterObject>(nullptr));
}

InterfacePtr<IZIRDBParameters> parameters_without_list() {
  return as<IZIRDBParameters>(make<ParametersObject>(nullptr));
}

void append_null(IZIRDBParameters* parameters) {
  list_behind(parameters).push_back(nullptr);
}

HRESULT to_odbc(IZIRDBParameter* parameter, ZirdbOdbcParameter* odbc) {
  return db_parameter_to_odbc_parameter(
      *inside<ParameterObject>(parameter).parameter(), odbc);
}

HRESULT write_back(IZIRDBParameters* parameters,
                   const std::vector<ZirdbOdbcParameter>& odbc) {
  return write_back_parameter_values(list_behind(parameters), odbc);
}

void clear_outputs(IZIRDBParameters* parameters) {
  clear_output_parameters(list_behind(parameters));
}

HRESULT from_array(const VARIANT* array,
                   InterfacePtr<IZIRDBParameters>* parameters) {
  *parameters = workbench::parameters();
  return build_dispatch_execute_parameters(array,
                                           &list_behind(parameters->get()));
}

HRESULT write_back_array(IZIRDBParameters* parameters, SAFEARRAY* array) {
  return write_back_parameter_array(array, list_behind(parameters));
}

HRESULT variant_to_long_long(const VARIANT* value, long long* number) {
  return ::variant_to_long_long(value, number);
}
HRESULT variant_to_bstr_value(const VARIANT* value, _bstr_t* text) {
  return ::variant_to_bstr_value(value, text);
}
HRESULT variant_to_byte_array(const VARIANT* value,
                              std::vector<unsigned char>* bytes) {
  return ::variant_to_byte_array(value, bytes);
}
std::string utf8_from_bstr(const wchar_t* text) {
  return ::utf8_from_bstr(text);
}
std::wstring utf32_from_utf8(const std::string& text) {
  return ::utf32_from_utf8(text.c_str());
}
std::wstring wstring_from_bstr(wchar_t* text) {
  return ::wstring_from_bstr(text);
}
HRESULT make_byte_array_variant(const std::vector<unsigned char>& bytes,
                                VARIANT* value) {
  return ::make_byte_array_variant(bytes, value);
}

Error last_error() {
  if (g_db_error == nullptr) return {};
  return {g_db_error->hr, g_db_error->source, g_db_error->description};
}

void set_error(HRESULT code, const wchar_t* source,
               const wchar_t* description) {
  set_db_error(code, source, description);
}

void fill_exception(EXCEPINFO* info, HRESULT code, const wchar_t* source) {
  populate_excepinfo_from_db_error(info, code, source);
}

std::uint32_t objects_alive() { return g_object_count.load(); }
std::uint32_t locks_held() { return g_lock_count.load(); }

}  // namespace workbench
