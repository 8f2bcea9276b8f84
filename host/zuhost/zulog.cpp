#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <mutex>
#include <vector>

#include <zuhost/zulog.h>

namespace ko {
namespace log {

namespace {
std::mutex& handlerMutex() {
  static std::mutex m;
  return m;
}
Handler& currentHandler() {
  static Handler h;
  return h;
}
void writeToStderr(const Record& r) {
  std::string message = r.message;
  if (!message.empty() && message.back() == '\n') message.pop_back();
  std::cerr << '[' << r.level << "] " << r.category << ": " << message << '\n';
}
}  // namespace

void log(int level, const std::string& category, const std::string& message,
         const std::string& file, const std::string& function, int line) {
  Record record{level, category, message, file, function, line};
  std::lock_guard<std::mutex> lock(handlerMutex());
  if (currentHandler())
    currentHandler()(record);
  else
    writeToStderr(record);
}

Handler setHandler(Handler handler) {
  std::lock_guard<std::mutex> lock(handlerMutex());
  Handler previous = std::move(currentHandler());
  currentHandler() = std::move(handler);
  return previous;
}

LogStream::LogStream(int level, const std::string& category, const std::string& file,
                     const std::string& function, int line)
    : record_{level, category, std::string(), file, function, line} {}

LogStream::~LogStream() {
  log(record_.level, record_.category, record_.message, record_.file, record_.function,
      record_.line);
}

LogStream& LogStream::operator()(const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  int n = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (n > 0) {
    std::vector<char> buf(static_cast<std::size_t>(n) + 1);
    std::vsnprintf(buf.data(), buf.size(), format, args);
    record_.message.append(buf.data(), static_cast<std::size_t>(n));
  }
  va_end(args);
  return *this;
}

}  // namespace log
}  // namespace ko
