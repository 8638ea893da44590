# Commands: what they send to the scripted database and bring back, and, without
# a database, their members and what they make of foreign connections.

zirdb_scripted_test(
  component_command_sent_test
  SOURCES component_command_text_test.cpp component_command_procedure_test.cpp
          component_command_write_back_test.cpp component_command_array_test.cpp
  LABELS component)

zirdb_test_program(
  component_command_test
  SOURCES component_command_properties_test.cpp
          component_command_dispatch_test.cpp
          component_command_foreign_test.cpp)
zirdb_discover(component_command_test LABELS component)
