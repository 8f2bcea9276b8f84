#include <cerrno>
#include <cstring>
#include <ostream>
#include <utility>
#include <vector>

#include <zuhost/zuerror.h>
#include <zuhost/zulog.h>

#include <zuobserve/zujson.h>
#include <zuobserve/zurecorder.h>

namespace ZU {

namespace {
const char* const kFile = "observe/zuobserve/zurecorder";
}  // namespace

ZURecorder::ZURecorder(const std::string& path, std::size_t queueLimit)
    : file_(path, std::ios::out | std::ios::trunc),
      out_(file_),
      name_(path),
      limit_(queueLimit),
      start_(std::chrono::steady_clock::now()) {
  if (!file_)
    throw ZUError("ZURecorder", "open", "cannot open " + path + " for writing", kFile, __LINE__);
  startWriting();
}

ZURecorder::ZURecorder(std::ostream& out, std::size_t queueLimit)
    : out_(out), name_("the stream"), limit_(queueLimit), start_(std::chrono::steady_clock::now()) {
  startWriting();
}

void ZURecorder::startWriting() {
  errno = 0;
  out_ << zujson::startJson(zujson::wallClockNow()).dump() << '\n';
  out_.flush();
  if (!out_) throw ZUError("ZURecorder", "open", writeProblem(), kFile, __LINE__);
  writer_ = std::thread(&ZURecorder::run, this);
}

std::string ZURecorder::writeProblem() const {
  return "cannot write " + name_ + (errno != 0 ? ": " + std::string(std::strerror(errno)) : "");
}

ZURecorder::~ZURecorder() {
  {
    ZUMutexLock lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  writer_.join();
}

void ZURecorder::push(Item&& item) {
  {
    ZUMutexLock lock(mutex_);
    if (queue_.size() >= limit_) {
      ++droppedTotal_;
      ++droppedUnsaid_;
      return;
    }
    queue_.push_back(std::move(item));
    ++queued_;
  }
  changed_.notify_all();
}

void ZURecorder::onEvent(const ZUEvent& event) { push(Item{event, nullptr}); }

void ZURecorder::record(const ZUSnapshot& snapshot) {
  push(Item{ZUEvent(), std::make_shared<const ZUSnapshot>(snapshot)});
}

void ZURecorder::flush() {
  ZUMutexLock lock(mutex_);
  const std::uint64_t target = queued_;
  changed_.notify_all();  // a drop alone does not wake the writer
  while (written_ < target || droppedUnsaid_ != 0) lock.wait(changed_);
}

std::uint64_t ZURecorder::dropped() const {
  ZUMutexLock lock(mutex_);
  return droppedTotal_;
}

std::string ZURecorder::failure() const {
  ZUMutexLock lock(mutex_);
  return failure_;
}

void ZURecorder::run() {
  bool broken = false;  // the writer's: a line failed (the stream stays failed)
  ZUMutexLock lock(mutex_);
  for (;;) {
    while (!stopping_ && queue_.empty() && droppedUnsaid_ == 0) lock.wait(changed_);
    if (queue_.empty() && droppedUnsaid_ == 0 && stopping_) return;
    std::deque<Item> batch;
    batch.swap(queue_);
    // The drops came after the events queued before them: said after those.
    const std::uint64_t drops = droppedUnsaid_;
    droppedUnsaid_ = 0;
    lock.unlock();

    errno = 0;
    for (const Item& item : batch) {
      if (!out_) break;
      const nlohmann::ordered_json line = item.snapshot
                                              ? zujson::snapshotJson(*item.snapshot, start_)
                                              : zujson::eventJson(item.event, start_);
      out_ << line.dump() << '\n';
      out_.flush();
    }
    if (drops != 0 && out_) {
      const double ms = zujson::msSince(start_, std::chrono::steady_clock::now());
      out_ << zujson::droppedJson(drops, ms).dump() << '\n';
      out_.flush();
    }

    std::string problem;
    if (!broken && !out_) {
      broken = true;
      problem = writeProblem();
      ko::log::log(1, "zurecorder", problem + "; the recording ends here", kFile, "run", __LINE__);
    }
    lock.lock();
    if (!problem.empty()) failure_ = problem;
    written_ += batch.size();
    changed_.notify_all();
  }
}

}  // namespace ZU
