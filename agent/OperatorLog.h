#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "FileReplication/Log.h"

namespace Agent {

using FileReplication::LogPriority;

// The agent's log on its standard error, for people and for the journal:
// lines below the chosen priority are left out; when standard error is the
// journal ($JOURNAL_STREAM names it), each line starts with its syslog
// priority ("<4>") so that the journal files it right, and otherwise with
// "filerep: ". The library's lines for the operator come here too.
void operatorLogIs(LogPriority least);
void say(LogPriority priority, std::string_view line);

// "error", "warning", "notice" or "info"; nothing for another text.
std::optional<LogPriority> logPriorityNamed(std::string_view name);

}  // namespace Agent
