#include "basalt/logging_sinks.h"

#include <fcntl.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <sys/stat.h>

#include <cerrno>
#include <mutex>

#include "basalt/posix_file.h"
#include "base/include/exceptions.h"

namespace lumo {
namespace {

class FileSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit FileSink(const std::string& path)
      : spdlog::sinks::base_sink<std::mutex>(std::make_unique<spdlog::pattern_formatter>(
            std::string("%Y-%m-%dT%H:%M:%S.%e%z ") + program_invocation_short_name + "[%P] %v")),
        m_path(path),
        m_file(openRegular(path, O_WRONLY | O_APPEND | O_CREAT, 0600, "Cannot write", false)) {}

 protected:
  void sink_it_(const spdlog::details::log_msg& record) override {
    spdlog::memory_buf_t line;
    formatter_->format(record, line);
    // One write is the rule; only a file system that runs full takes less.
    for (std::size_t done = 0; done < line.size();) {
      const ssize_t written = write(m_file.get(), line.data() + done, line.size() - done);
      if (written < 0 && errno != EINTR) throwSystem("Cannot write", m_path, errno);
      if (written > 0) done += static_cast<std::size_t>(written);
    }
  }
  void flush_() override {}

 private:
  std::string m_path;
  FileDescriptor m_file;
};

// Length of the well-formed UTF-8 sequence at `at` that is no control character; 0 when there is none.
std::size_t printableLength(const std::string& text, std::size_t at) {
  const auto byte = [&](std::size_t i) -> unsigned {
    return i < text.size() ? static_cast<unsigned char>(text[i]) : 0U;
  };
  const unsigned first = byte(at);
  if (first < 0x80) return first >= 0x20 && first != 0x7F ? 1 : 0;
  const std::size_t length = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
  if (first < 0xC2 || first > 0xF4) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(at + i) & 0xC0U) != 0x80) return 0;
  }
  const unsigned second = byte(at + 1);
  const bool overlongOrControl = (first == 0xC2 && second < 0xA0) || (first == 0xE0 && second < 0xA0) ||
                                 (first == 0xED && second >= 0xA0) || (first == 0xF0 && second < 0x90) ||
                                 (first == 0xF4 && second >= 0x90);
  return overlongOrControl ? 0 : length;
}

void appendEscaped(std::string& out, char c) {
  constexpr char digits[] = "0123456789abcdef";
  const auto value = static_cast<unsigned char>(c);
  switch (c) {
    case '\n':
      out += "\\n";
      break;
    case '\r':
      out += "\\r";
      break;
    case '\t':
      out += "\\t";
      break;
    default:
      out += {'\\', 'x', digits[value >> 4U], digits[value & 15U]};
  }
}

}  // namespace

std::shared_ptr<spdlog::sinks::sink> makeFileSink(const std::string& path) { return std::make_shared<FileSink>(path); }

std::shared_ptr<spdlog::sinks::sink> makeSystemSink() {
  return std::make_shared<spdlog::sinks::syslog_sink_mt>(program_invocation_short_name, LOG_PID, LOG_AUTHPRIV, false);
}

std::string oneLine(const std::string& text) {
  const std::size_t size = text.find_last_not_of('\n') + 1;
  std::string out;
  out.reserve(size);
  for (std::size_t at = 0; at < size;) {
    const std::size_t length = printableLength(text, at);
    if (length == 0) {
      appendEscaped(out, text[at++]);
    } else {
      out.append(text, at, length);
      at += length;
    }
  }
  return out;
}

}  // namespace lumo
