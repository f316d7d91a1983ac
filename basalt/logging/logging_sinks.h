// Where log records go: the system log and one file.
#pragma once

#include <spdlog/sinks/sink.h>

#include <memory>
#include <string>

namespace lumo {

// Appends whole lines to a file, one write each, so that processes can share it. Opened with mode 0600 and without
// following a symbolic link. Throws SystemException.
std::shared_ptr<spdlog::sinks::sink> makeFileSink(const std::string& path);

// The system log, facility authpriv, ident the program's name, with the process id.
std::shared_ptr<spdlog::sinks::sink> makeSystemSink();

// Text in one line: newlines at the end are dropped, the rest is as `printable` has it.
std::string oneLine(const std::string& text);

}  // namespace lumo
