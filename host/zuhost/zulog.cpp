#include <cstdarg>
#include <cstdio>
#include <iostream>
#include <vector>

#include <zuhost/zulog.h>
#include <zuhost/zumutex.h>

namespace ko {
namespace log {

namespace {
// The handler runs under the mutex, so that records never interleave and a
// handler being replaced is never running.
struct HandlerSlot {
  ZU::ZUMutex mutex;
  Handler handler ZU_GUARDED_BY(mutex);
};
HandlerSlot& handlerSlot() {
  static HandlerSlot slot;
  return slot;
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
  HandlerSlot& slot = handlerSlot();
  ZU::ZUMutexLock lock(slot.mutex);
  if (slot.handler)
    slot.handler(record);
  else
    writeToStderr(record);
}

Handler setHandler(Handler handler) {
  HandlerSlot& slot = handlerSlot();
  ZU::ZUMutexLock lock(slot.mutex);
  Handler previous = std::move(slot.handler);
  slot.handler = std::move(handler);
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
