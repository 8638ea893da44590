// SPDX-License-Identifier: MIT
//
// zirdb: the command line.
//
//   zirdb query CONNECTION SQL    runs one statement and prints what it gives
//   zirdb doctor [CONNECTION]     finds out why a connection fails
//
// Standard output has data and nothing else; everything that is said about them
// goes to standard error. Exit status: 0 success, 1 failure, 2 wrong usage.

#include <fcntl.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <vector>

#include "doctor.h"
#include "library.h"
#include "output.h"
#include "query.h"

namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

int fail(const std::string& text) {
  std::cerr << "zirdb: " << visible(text) << '\n';
  return kFailed;
}

void hint(const std::string& text) {
  if (!text.empty()) std::cerr << "hint: " << visible(text) << '\n';
}

constexpr char kNotWritten[] = "cannot write the output";

// Success is only what reached its reader.
int finish(int status) {
  return std::cout.flush() ? status : fail(kNotWritten);
}

int write_out(const std::string& text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
      std::fflush(stdout) == 0) {
    return 0;
  }
  // NOLINTNEXTLINE(concurrency-mt-unsafe): there is one thread
  return fail(std::string(kNotWritten) + ": " + std::strerror(errno));
}

// A file that a driver opens must not become our standard output because that
// was closed: the rows would be written into it. These refuse what is asked of
// them.
void keep_standard_descriptors() {
  for (int number = 0; number <= 2; ++number) {
    if (fcntl(number, F_GETFD) == -1 && errno == EBADF) {
      open("/dev/null", number == 0 ? O_WRONLY : O_RDONLY);
    }
  }
}

struct Arguments {
  std::string connection;
  std::string sql;
  std::vector<std::string> values;
  std::string format = "table";
};

bool read_standard_input(std::string* text) {
  char part[4096];
  while (const std::size_t size = std::fread(part, 1, sizeof part, stdin)) {
    text->append(part, size);
  }
  return std::ferror(stdin) == 0;
}

std::string counted_rows(std::int64_t count) {
  return std::to_string(count) + (count == 1 ? " row" : " rows");
}

int print(const Answer& answer, const std::string& format) {
  const bool has_rows = !answer.columns.empty();
  std::string text;
  if (format == "json") {
    text = as_json(answer);
  } else if (has_rows) {
    text = format == "csv" ? as_csv(answer) : as_table(answer);
  }
  const int status = write_out(text);
  if (status != 0) return status;
  if (!has_rows) {
    std::cerr << (answer.affected < 0
                      ? "done"
                      : counted_rows(answer.affected) + " affected")
              << '\n';
  } else if (format == "table") {
    std::cerr << '('
              << counted_rows(static_cast<std::int64_t>(answer.rows.size()))
              << ")\n";
  }
  return 0;
}

int query(Arguments& arguments) try {
  if (arguments.sql == "-") {
    arguments.sql.clear();
    if (!read_standard_input(&arguments.sql)) {
      return fail("cannot read standard input");
    }
  }
  return print(run_query(arguments.connection, arguments.sql, arguments.values),
               arguments.format);
} catch (const late_bound::Error& error) {
  const std::string text = error.what();
  char code[16];
  std::snprintf(code, sizeof code, "0x%08X",
                static_cast<unsigned>(error.code()));
  fail((error.source().empty() ? "" : error.source() + ": ") + text + " (" +
       code + ')');
  if (text == "ODBC operation failed") {
    hint(
        "the driver gave no reason; some drivers say so when a change matches"
        " no row");
  }
  hint(driver_hint(text));
  return kFailed;
}

int run(int argc, char** argv) {
  CLI::App app("SQL on any database that has an ODBC driver.", "zirdb");
  app.require_subcommand(1);
  app.set_version_flag("--version", "zirdb " ZIRDB_VERSION);
  app.footer("Exit status: 0 success, 1 failure, 2 wrong usage. See zirdb(1).");

  Arguments arguments;
  CLI::App* const query_command =
      app.add_subcommand("query", "Runs one statement and prints its rows");
  query_command
      ->add_option("CONNECTION", arguments.connection,
                   "such as 'Driver=SQLite3;Database=shop.db' or 'DSN=shop'")
      ->required();
  query_command
      ->add_option("SQL", arguments.sql,
                   "the statement; - reads it from standard input")
      ->required();
  query_command
      ->add_option("--format", arguments.format, "table (default), csv or json")
      ->check(CLI::IsMember({"table", "csv", "json"}))
      ->option_text("FORMAT");
  query_command
      ->add_option("--value", arguments.values,
                   "a value for the statement's next marker, as text; give it"
                   " once for each")
      ->expected(1)
      ->take_all()
      ->allow_extra_args(false)
      ->option_text("TEXT");

  CLI::App* const doctor_command = app.add_subcommand(
      "doctor", "Finds out why a connection or a driver does not work");
  CLI::Option* const trial = doctor_command->add_option(
      "CONNECTION", arguments.connection, "a connection string to try");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return finish(app.exit(error));
    fail(error.what());
    std::cerr << "try: zirdb --help\n";
    return kWrongUsage;
  }
  const Registry registry = use_default_registry();
  if (query_command->parsed()) return query(arguments);
  const int problems = run_doctor(
      registry, trial->count() > 0 ? &arguments.connection : nullptr);
  return finish(problems == 0 ? 0 : kFailed);
}

}  // namespace

int main(int argc, char** argv) try {
  keep_standard_descriptors();
  // A reader that goes away is an error like any other.
  signal(SIGPIPE, SIG_IGN);
  return run(argc, argv);
} catch (const std::exception& error) {
  return fail(error.what());
}
