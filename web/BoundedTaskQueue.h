// The server's workers: a fixed number of threads, and a queue of
// connections waiting for one that stops taking more when full. Whoever
// hands in one more then waits, and further connections wait in the
// kernel's queue instead of in our memory.
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include <httplib.h>

namespace parlova {

class BoundedTaskQueue : public httplib::TaskQueue {
public:
  BoundedTaskQueue(size_t workers, size_t waiting);
  ~BoundedTaskQueue() override;

  void enqueue(std::function<void()> task) override;
  void shutdown() override;

private:
  void work();

  const size_t waiting_;
  std::mutex mutex_;
  std::condition_variable taken_;
  std::condition_variable added_;
  std::deque<std::function<void()>> tasks_;
  bool stopping_ = false;
  std::vector<std::thread> workers_;
};

} // namespace parlova
