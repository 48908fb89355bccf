// filerep: the agent that keeps files replicated, and its command line.
#include <CLI/CLI.hpp>

#include <cctype>
#include <cerrno>
#include <ctime>
#include <iostream>
#include <iterator>
#include <vector>

#include "agent/Agent.h"
#include "agent/ConfigFile.h"
#include "agent/ControlClient.h"
#include "agent/ControlOperations.h"
#include "agent/OperatorLog.h"
#include "agent/SocketPath.h"
#include "agent/StatusView.h"
#include "runtime/Morlix.h"

namespace {

constexpr char const* heading = R"(NAME
    filerep - keep files replicated to remote hosts

SYNOPSIS
    filerep run --config FILE [--socket PATH] [--trace-file PATH] [--log-level LEVEL]
    filerep check --config FILE
)";

constexpr char const* description = R"(    filerep trace [--file PATH]

DESCRIPTION
    For every requester of its configuration file, filerep replicates each
    file on a fixed period or whenever the file changes on disk, by running
    Replicate (rsync, over ssh for remote hosts). `run` is the agent; the
    other commands check a configuration or talk to the running agent over
    its control socket.)";

constexpr char const* footer = R"(
FILES
    /run/filerep/filerep.sock (root) or $XDG_RUNTIME_DIR/filerep.sock
        The control socket, mode 0600 in a directory of mode 0700.

SIGNALS
    SIGHUP reloads the configuration file (it is also reloaded when it
    changes on disk); SIGTERM and SIGINT stop the agent in order.

ENVIRONMENT
    KEL_TRACE      trace to stderr, e.g. "FileReplicationSm/6,*/1"
    MORLIX_FILE    also record every trace statement in this ring buffer
    RSYNC_RSH      the ssh command Replicate uses for remote hosts

EXIT STATUS
    0 on success, 1 on an error (invalid configuration, no agent running,
    unknown requester or file), 2 on a malformed command line; status
    exits 2 while a file has failed syncErrorThreshold runs in a row.)";

// A command of the command line for each control operation: its fields are
// positional arguments.
struct ControlCommand {
  Agent::ControlOperation const* operation;
  CLI::App* app;
  std::string values[Agent::ControlOperation::maxFields];
};

std::string argumentName(std::string_view field) {
  std::string text(field);
  for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return text;
}

std::string synopsis() {
  std::string text = heading;
  for (auto const& operation : Agent::controlOperations) {
    text += "    filerep " + Agent::commandLineName(operation.name);
    for (auto const& field : operation.fields) {
      if (field.name.empty()) continue;
      text += field.required ? " " + argumentName(field.name) : " [" + argumentName(field.name) + "]";
    }
    text += operation.name == "status" ? " [REQUESTER] [--json | --watch [SECONDS]] [--socket PATH]\n"
                                       : " [--json] [--socket PATH]\n";
  }
  return text + description;
}

int fail(std::string const& message) {
  std::cerr << "filerep: " << message << std::endl;
  return 1;
}

int runAgent(std::string const& config, std::string const& socket, std::string const& traceFile,
             std::string const& logLevel) {
  try {
    Agent::Agent agent({config, socket, traceFile, *Agent::logPriorityNamed(logLevel)});
    agent.run();
  } catch (std::exception const& e) {
    return fail(e.what());
  }
  return 0;
}

int check(std::string const& config) {
  Agent::ParsedConfig parsed = Agent::parseConfigFile(config);
  for (auto const& e : parsed.errors) std::cerr << e << std::endl;
  for (auto const& w : parsed.warnings) std::cerr << "warning: " << w << std::endl;
  if (!parsed.ok()) return 1;
  std::cout << config << ": valid, " << parsed.config.requesters.size() << " requesters" << std::endl;
  return 0;
}

int ask(std::string const& socket, nlohmann::json const& request, bool json, std::string const& shown = {}) {
  try {
    nlohmann::json reply = Agent::request(socket, request);
    if (!reply.value("ok", false)) return fail(reply.value("error", std::string("the agent refused the request")));
    reply.erase("ok");
    if (request["command"] == "status") {
      if (json) {
        std::cout << reply.dump(2) << std::endl;
      } else {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        std::cout << Agent::statusTable(reply, double(now.tv_sec) + double(now.tv_nsec) / 1e9, shown);
      }
      // As a monitoring check reads it: critical while a file is over its
      // requester's syncErrorThreshold.
      return reply.value("alerting", 0) > 0 ? 2 : 0;
    }
    if (!json && request["command"] == "metrics") {
      std::cout << reply.value("text", std::string());
      return 0;
    }
    if (!json && reply.contains("note")) {
      std::cerr << "filerep: " << reply["note"].get<std::string>() << std::endl;
      reply.erase("note");
    }
    // A reply with no view of its own is shown as it is.
    if (json || !reply.empty()) std::cout << reply.dump(2) << std::endl;
  } catch (std::exception const& e) {
    return fail(e.what());
  }
  return 0;
}

// Until interrupted, as watch(1) would show it; ends at once when the agent
// cannot be asked.
int watchStatus(std::string const& socket, double seconds, std::string const& shown) {
  for (;;) {
    std::cout << "\x1b[H\x1b[2J";
    if (ask(socket, {{"command", "status"}}, false, shown) == 1) return 1;
    std::cout << std::flush;
    timespec pause{};
    pause.tv_sec = static_cast<time_t>(seconds);
    pause.tv_nsec = static_cast<long>((seconds - double(pause.tv_sec)) * 1e9);
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
  }
}

int trace(std::string const& file) {
  if (file.empty()) return fail("no trace file: give --file or set MORLIX_FILE");
  try {
    for (auto const& record : Morlix::read(file).records) std::cout << Morlix::line(record) << '\n';
  } catch (std::exception const& e) {
    return fail(e.what());
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app(synopsis(), "filerep");
  app.footer(footer);
  app.require_subcommand(1);

  std::string config, socket = Agent::defaultSocketPath(), traceFile;
  char const* morlix = getenv("MORLIX_FILE");
  std::string traceRead = morlix ? morlix : "";
  bool json = false;

  auto* run = app.add_subcommand("run", "Run the agent in the foreground until SIGTERM or SIGINT.");
  run->add_option("--config", config, "The configuration file (YAML)")->required();
  run->add_option("--socket", socket, "The control socket")->capture_default_str();
  run->add_option("--trace-file", traceFile, "Record every trace statement in this ring buffer");
  std::string logLevel = "info";
  run->add_option("--log-level", logLevel, "Leave out log lines below this: error, warning, notice or info")
      ->check([](std::string const& v) {
        return Agent::logPriorityNamed(v) ? "" : "expected error, warning, notice or info";
      })
      ->capture_default_str();

  auto* checkCommand =
      app.add_subcommand("check", "Check a configuration file: print every error and warning, exit 1 if any error.");
  checkCommand->add_option("--config", config, "The configuration file (YAML)")->required();

  double watchSeconds = 0;
  std::string shownRequester;
  std::vector<ControlCommand> controlCommands;
  // CLI keeps pointers to the values.
  controlCommands.reserve(std::size(Agent::controlOperations));
  for (auto const& operation : Agent::controlOperations) {
    auto* command = app.add_subcommand(Agent::commandLineName(operation.name), std::string(operation.help));
    ControlCommand& added = controlCommands.emplace_back(ControlCommand{&operation, command, {}});
    for (std::size_t i = 0; i < Agent::ControlOperation::maxFields; ++i) {
      auto const& field = operation.fields[i];
      if (field.name.empty()) continue;
      auto* option = command->add_option(argumentName(field.name), added.values[i], std::string(field.help));
      if (field.required) option->required();
    }
    auto* jsonFlag = command->add_flag("--json", json, "Print the reply as JSON");
    command->add_option("--socket", socket, "The control socket")->capture_default_str();
    if (operation.name == "status") {
      command->add_option("--watch", watchSeconds, "Show the table again every SECONDS (2 when not given) until Ctrl-C")
          ->expected(0, 1)
          ->default_str("2")
          ->check(CLI::Range(0.1, 3600.0))
          ->excludes(jsonFlag);
      // Only the table needs it: the reply has every file.
      command->add_option("REQUESTER", shownRequester, "List every file of this requester, those of its trees too");
    }
  }

  auto* traceCommand = app.add_subcommand("trace", "Print the trace ring buffer, oldest record first.");
  traceCommand->add_option("--file", traceRead, "The ring buffer file (default: $MORLIX_FILE)");

  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    return app.exit(e) == 0 ? 0 : 2;
  }

  if (*run) return runAgent(config, socket, traceFile, logLevel);
  if (*checkCommand) return check(config);
  for (auto const& command : controlCommands) {
    if (!*command.app) continue;
    if (command.operation->name == "status" && command.app->count("--watch") > 0) {
      return watchStatus(socket, watchSeconds > 0 ? watchSeconds : 2, shownRequester);
    }
    nlohmann::json request = {{"command", std::string(command.operation->name)}};
    for (std::size_t i = 0; i < Agent::ControlOperation::maxFields; ++i) {
      if (!command.values[i].empty()) request[std::string(command.operation->fields[i].name)] = command.values[i];
    }
    return ask(socket, request, json, shownRequester);
  }
  return trace(traceRead);
}
