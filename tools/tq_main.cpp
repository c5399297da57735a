// tq - command-line host of the ANVLWTQ engine.
//
// One subcommand per test (tq_catalog.cpp); each reads its data (tq_data),
// its own and the shared options (tq_options), makes one call of TQCALLER
// with progress on standard error (tq_engine, tq_progress) and prints the
// fields that the procedure publishes (tq_report).
//
// Exit status: 0 success, 1 the engine reported a failure, 2 usage error.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <new>
#include <string>
#include <vector>

#include "tq_catalog.h"
#include "tq_data.h"
#include "tq_engine.h"
#include "tq_options.h"
#include "tq_report.h"

namespace tq {
namespace {

constexpr const char* kFooter =
    "Each test takes its data, method, limits and output options: tq TEST --help lists them.\n"
    "A test may be named by its procedure code too (tq 32 is tq fisher).\n"
    "Ctrl-C or --time-limit stop a run; tq then prints what stands.\n"
    "Exit status: 0 success, 1 the engine reported a failure, 2 a usage error.";

// The long names of a subcommand's options.
std::vector<std::string> OptionNames(const CLI::App& app) {
  std::vector<std::string> names;
  for (const CLI::Option* o : app.get_options())
    for (const std::string& n : o->get_lnames()) names.push_back("--" + n);
  return names;
}

// An argument the test doesn't take: name the nearest option it has, and
// the tests whose option it is.
[[noreturn]] void RefuseExtra(CLI::App& app, const CLI::App& sub, const std::string& arg) {
  const std::string name = sub.get_name();
  if (arg.rfind("-", 0) != 0)
    Fail(name + ": unexpected argument '" + arg + "'; data go in an option such as --table (see tq " + name +
         " --help)");
  const std::string option = arg.substr(0, arg.find('='));
  std::vector<std::string> owners;
  for (const CLI::App* other : app.get_subcommands([](CLI::App*) { return true; }))
    if (other != &sub && other->get_option_no_throw(option) != nullptr) owners.push_back(other->get_name());
  std::string whose;
  for (const std::string& o : owners) whose += (whose.empty() ? "" : ", ") + o;
  if (owners.size() > 3) whose = "other tests";
  Fail(name + ": no option " + option + (whose.empty() ? "" : " (an option of " + whose + ")") +
       "; the nearest option of " + name + " is " + Nearest(option, OptionNames(sub)) + " (see tq " + name +
       " --help)");
}

// What a stopped run prints: called from inside the engine's last poll,
// after the engine has deleted its spill file, so tq ends there.
const Test* g_test = nullptr;
const Call* g_call = nullptr;
const SharedOptions* g_shared = nullptr;

void PrintAndExit(const RunResult& run) {
  PrintResult(*g_test, *g_call, *g_shared, run);
  std::fflush(stderr);
  _exit(kExitEngineFailure);
}

int Run(int argc, char** argv) {
  CLI::App app{"Runs one test of the ANVLWTQ exact inference engine and reports what it publishes.", "tq"};
  app.set_help_flag("-h,--help", "this help (tq TEST --help: the options of one test)");
  app.require_subcommand(0, 1);
  app.allow_extras();
  app.footer(kFooter);
  app.formatter(HelpFormatter());

  SharedOptions shared;
  DataOptions data;
  struct Entry {
    const Test* test;
    CLI::App* app;
    Prepare prepare;
  };
  std::vector<Entry> entries;
  for (const Test& t : Catalog()) {
    CLI::App* sub = app.add_subcommand(t.name, t.summary);
    sub->alias(std::to_string(t.code));
    sub->allow_extras();
    sub->footer("Exit status: 0 success, 1 the engine reported a failure, 2 a usage error.");
    AddDataOptions(*sub, t.reads, data);
    Prepare prepare = t.options != nullptr ? t.options(*sub) : Prepare();
    AddSharedOptions(*sub, t, shared);
    entries.push_back({&t, sub, prepare});
  }

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);  // --help
    std::string where;
    for (const Entry& en : entries)
      if (en.app->parsed()) where = en.app->get_name();
    Fail((where.empty() ? "" : where + ": ") + e.what() + " (see tq " + (where.empty() ? "" : where + " ") + "--help)");
  }

  const Entry* chosen = nullptr;
  for (const Entry& en : entries)
    if (en.app->parsed()) chosen = &en;
  if (chosen == nullptr) {
    const std::vector<std::string> rest = app.remaining();
    if (rest.empty()) Fail("name a test, for example tq fisher --table \"2 1; 0 3\" (tq --help lists them)");
    std::vector<std::string> names;
    for (const Test& t : Catalog()) names.push_back(t.name);
    Fail("unknown test '" + rest[0] + "'; the nearest is " + Nearest(rest[0], names) + " (tq --help lists them)");
  }
  if (const std::vector<std::string> rest = chosen->app->remaining(); !rest.empty())
    RefuseExtra(app, *chosen->app, rest[0]);

  const Test& test = *chosen->test;
  Call call;
  // The scores follow the table: before the test's own options when the
  // shared options gave the data (the median test cuts at the scores),
  // after them when its own options did.
  ReadData(test, data, call);
  const bool shared_data = call.table_form || call.case_cols > 0;
  if (shared_data) ReadScores(test, data, call);
  if (chosen->prepare) chosen->prepare(call);
  if (!shared_data) ReadScores(test, data, call);
  ApplySharedOptions(test, shared, call);
  g_test = &test;
  g_call = &call;
  g_shared = &shared;
  const RunResult run = RunTest(test, call, shared.quiet, PrintAndExit);
  PrintResult(test, call, shared, run);
  return run.outcome.ok ? kExitSuccess : kExitEngineFailure;
}

}  // namespace
}  // namespace tq

int main(int argc, char** argv) {
  try {
    return tq::Run(argc, argv);
  } catch (const tq::UsageError& e) {
    std::fprintf(stderr, "tq: %s\n", e.what());
    return tq::kExitUsage;
  } catch (const std::bad_alloc&) {
    std::fprintf(stderr, "tq: out of memory\n");
    return tq::kExitUsage;
  }
}
