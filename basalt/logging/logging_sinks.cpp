#include "basalt/logging/logging_sinks.h"

#include <fcntl.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/syslog_sink.h>
#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <string_view>

#include "basalt/files/posix_file.h"
#include "base/include/exceptions.h"
#include "base/include/printable.h"

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

}  // namespace

std::shared_ptr<spdlog::sinks::sink> makeFileSink(const std::string& path) { return std::make_shared<FileSink>(path); }

std::shared_ptr<spdlog::sinks::sink> makeSystemSink() {
  return std::make_shared<spdlog::sinks::syslog_sink_mt>(program_invocation_short_name, LOG_PID, LOG_AUTHPRIV, false);
}

std::string oneLine(const std::string& text) {
  return printable(std::string_view(text).substr(0, text.find_last_not_of('\n') + 1));
}

}  // namespace lumo
