#include <zuhost/zubroker.h>

namespace ZU {

namespace {
const char* const kFile = "host/src/zubroker";
}

ZUModule::ZUModule(const std::string& name) : name_(name), tasks_(std::make_shared<Tasks>()) {}

ZUModule::~ZUModule() {
  std::thread worker;
  {
    ZUMutexLock lock(mutex_);
    worker = std::move(worker_);
  }
  {
    ZUMutexLock lock(tasks_->mutex);
    tasks_->stopping = true;
    tasks_->queue.clear();
  }
  tasks_->changed.notify_all();
  if (!worker.joinable()) return;
  if (worker.get_id() == std::this_thread::get_id())
    worker.detach();  // the last handle went inside our own task
  else
    worker.join();
}

void ZUModule::bind(const std::string& method, const char* paramType, Callable call) {
  ZUMutexLock lock(mutex_);
  methods_[method] = Method{paramType, std::move(call)};
}

ZUModule::Callable ZUModule::lookup(const std::string& method, int paramNumber,
                                    const char* argType) const {
  ZUMutexLock lock(mutex_);
  auto it = methods_.find(method);
  if (it == methods_.end())
    throw ZUError("ZUProxy", "call/pCall",
                  "Module '" + name_ + "' has no function '" + method + "'", kFile, __LINE__);
  if (it->second.paramType != argType)
    throw ZUError("ZUProxy", "call/pCall",
                  "When trying to call module '" + name_ + "' function '" + method +
                      "' parameter #" + std::to_string(paramNumber) + " is of type " + argType +
                      " instead of type " + it->second.paramType,
                  kFile, __LINE__);
  return it->second.call;
}

int ZUModule::enqueue(std::function<void()> task) {
  ZUMutexLock workerLock(mutex_);
  int id;
  {
    ZUMutexLock lock(tasks_->mutex);
    if (tasks_->stopping)
      throw ZUError("ZUProxy", "call/pCall", "Module '" + name_ + "' is stopping", kFile, __LINE__);
    tasks_->queue.push_back(std::move(task));
    id = tasks_->nextTaskId++;
  }
  tasks_->changed.notify_all();
  if (!worker_.joinable()) worker_ = std::thread(&ZUModule::run, tasks_);
  return id;
}

void ZUModule::run(const std::shared_ptr<Tasks>& tasks) {
  ZUMutexLock lock(tasks->mutex);
  for (;;) {
    while (!tasks->stopping && tasks->queue.empty()) lock.wait(tasks->changed);
    if (tasks->stopping) return;
    std::function<void()> task = std::move(tasks->queue.front());
    tasks->queue.pop_front();
    tasks->running = true;
    lock.unlock();
    try {
      task();
    } catch (...) {
      // A method's failure is its own; the module goes on with the next task.
    }
    task = nullptr;  // drop what the task holds before reporting idle
    lock.lock();
    tasks->running = false;
    tasks->changed.notify_all();
  }
}

void ZUModule::waitIdle() {
  ZUMutexLock lock(tasks_->mutex);
  while (!tasks_->stopping && (!tasks_->queue.empty() || tasks_->running))
    lock.wait(tasks_->changed);
}

bool ZUModule::waitIdleFor(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  ZUMutexLock lock(tasks_->mutex);
  while (!tasks_->stopping && (!tasks_->queue.empty() || tasks_->running))
    if (!lock.waitUntil(tasks_->changed, deadline)) break;
  return tasks_->stopping || (tasks_->queue.empty() && !tasks_->running);
}

int ZUModule::startedTasks() const {
  ZUMutexLock lock(tasks_->mutex);
  return tasks_->nextTaskId - 1;
}

ZUProxy::ZUProxy(const boost::shared_ptr<ZUModule>& module)
    : module_(module), moduleName_(module ? module->getName() : std::string()) {}

boost::shared_ptr<ZUModule> ZUProxy::module(const std::string& method) const {
  boost::shared_ptr<ZUModule> m = module_.lock();
  if (!m)
    throw ZUError("ZUProxy", "call/pCall",
                  "Module '" + moduleName_ + "' is gone; cannot call '" + method + "'", kFile,
                  __LINE__);
  return m;
}

void ZUBroker::addModule(const boost::shared_ptr<ZUModule>& module) {
  if (!module) throw ZUError("ZUBroker", "addModule", "empty module handle", kFile, __LINE__);
  boost::shared_ptr<ZUModule> replaced;
  ZUMutexLock lock(mutex_);
  boost::shared_ptr<ZUModule>& slot = modules_[module->getName()];
  replaced.swap(slot);
  slot = module;
}

void ZUBroker::removeModule(const std::string& name) {
  boost::shared_ptr<ZUModule> removed;  // destroyed after the lock is released
  ZUMutexLock lock(mutex_);
  auto it = modules_.find(name);
  if (it == modules_.end()) return;
  removed.swap(it->second);
  modules_.erase(it);
}

boost::shared_ptr<ZUModule> ZUBroker::getModule(const std::string& name) const {
  ZUMutexLock lock(mutex_);
  auto it = modules_.find(name);
  return it == modules_.end() ? boost::shared_ptr<ZUModule>() : it->second;
}

boost::shared_ptr<ZUProxy> ZUBroker::getProxy(const std::string& name, int /*option*/) {
  boost::shared_ptr<ZUModule> module = getModule(name);
  if (!module)
    throw ZUError("ZUBroker", "getProxy", "No module named '" + name + "'", kFile, __LINE__);
  return boost::shared_ptr<ZUProxy>(new ZUProxy(module));
}

}  // namespace ZU
