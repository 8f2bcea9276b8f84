#pragma once

#include <functional>
#include <string>

namespace ko {
namespace log {

/// One log record as the host logger receives it.
struct Record {
  int level;
  std::string category;
  std::string message;
  std::string file;
  std::string function;
  int line;
};

/// Where records go. The default handler writes one line per record to
/// standard error: `[<level>] <category>: <message>` (a trailing line feed of
/// the message is not doubled).
using Handler = std::function<void(const Record&)>;

/// Writes one record through the current handler. Thread safe: handlers are
/// called one at a time.
void log(int level, const std::string& category, const std::string& message,
         const std::string& file, const std::string& function, int line);

/// Installs `handler` (an empty one restores the default) and returns the
/// previous one, so that a test can capture records and put the old handler
/// back. Thread safe.
Handler setHandler(Handler handler);

/// Builds a message printf-style and logs it once, when the stream goes out of
/// scope. Not shared between threads.
class LogStream {
 public:
  LogStream(int level, const std::string& category, const std::string& file,
            const std::string& function, int line);
  ~LogStream();
  LogStream(const LogStream&) = delete;
  LogStream& operator=(const LogStream&) = delete;

  /// Appends the printf-formatted text to the message.
  LogStream& operator()(const char* format, ...) __attribute__((format(printf, 2, 3)));

 private:
  Record record_;
};

}  // namespace log
}  // namespace ko
