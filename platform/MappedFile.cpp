#include "platform/MappedFile.h"

#include <atomic>
#include <csignal>
#include <fcntl.h>
#include <mutex>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include "platform/FileDescriptor.h"
#include "platform/FileManager.h"

namespace parlova {

namespace {

// The guard against a file cut short under its mapping. Reading a page that
// no longer has a file behind it raises SIGBUS; the handler puts a page of
// zeros there and notes the cut, and the read goes on. Mappings are found
// through fixed slots, which a signal handler may read without a lock.
struct GuardSlot {
  std::atomic<bool> taken{false};
  std::atomic<uintptr_t> start{0}; // 0 while the slot is being filled or emptied
  std::atomic<uintptr_t> end{0};
  std::atomic<bool> cut{false};
};

constexpr int kGuardSlots = 16;
GuardSlot guardSlots[kGuardSlots];
struct sigaction earlierBusAction;
uintptr_t pageSize = 4096;

void onBusError(int signal, siginfo_t *info, void *context) {
  const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
  for (GuardSlot &slot : guardSlots) {
    const uintptr_t start = slot.start.load();
    if (start == 0 || address < start || address >= slot.end.load())
      continue;
    void *page = reinterpret_cast<void *>(address & ~(pageSize - 1));
    if (mmap(page, pageSize, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) != MAP_FAILED) {
      slot.cut.store(true);
      return;
    }
  }
  // Not one of ours: whoever handled it before does, or the default ends
  // the process when the read is tried again.
  if ((earlierBusAction.sa_flags & SA_SIGINFO) && earlierBusAction.sa_sigaction) {
    earlierBusAction.sa_sigaction(signal, info, context);
  } else if (earlierBusAction.sa_handler != SIG_DFL && earlierBusAction.sa_handler != SIG_IGN) {
    earlierBusAction.sa_handler(signal);
  } else {
    struct sigaction byDefault{};
    byDefault.sa_handler = SIG_DFL;
    sigaction(SIGBUS, &byDefault, nullptr);
  }
}

void installGuard() {
  static std::once_flag installed;
  std::call_once(installed, [] {
    pageSize = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    struct sigaction action{};
    action.sa_sigaction = onBusError;
    action.sa_flags = SA_SIGINFO;
    sigemptyset(&action.sa_mask);
    sigaction(SIGBUS, &action, &earlierBusAction);
  });
}

int takeGuardSlot(const uint8_t *data, size_t size) {
  installGuard();
  for (int i = 0; i < kGuardSlots; ++i) {
    bool free = false;
    if (!guardSlots[i].taken.compare_exchange_strong(free, true))
      continue;
    guardSlots[i].cut.store(false);
    guardSlots[i].end.store(reinterpret_cast<uintptr_t>(data) + size);
    guardSlots[i].start.store(reinterpret_cast<uintptr_t>(data));
    return i;
  }
  return -1;
}

} // namespace

std::optional<MappedFile> MappedFile::open(const std::filesystem::path &path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error))
    return std::nullopt;
  const FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file)
    return std::nullopt;
  MappedFile mapped;
  struct stat status{};
  if (fstat(file.get(), &status) == 0 && status.st_size > 0) {
    const auto size = static_cast<size_t>(status.st_size);
    void *data = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, file.get(), 0);
    if (data != MAP_FAILED) {
      mapped.data_ = static_cast<const uint8_t *>(data);
      mapped.size_ = size;
      mapped.guard_ = takeGuardSlot(mapped.data_, size);
      // With every slot taken there is no guard: the file is read instead.
      if (mapped.guard_ >= 0) {
        madvise(data, size, MADV_SEQUENTIAL);
        return mapped;
      }
      munmap(data, size);
      mapped.data_ = nullptr;
      mapped.size_ = 0;
    }
  }
  auto contents = readFileContents(path);
  if (!contents)
    return std::nullopt;
  mapped.read_ = std::move(*contents);
  mapped.data_ = mapped.read_.data();
  mapped.size_ = mapped.read_.size();
  return mapped;
}

MappedFile::MappedFile(MappedFile &&other) noexcept
    : data_(std::exchange(other.data_, nullptr)), size_(std::exchange(other.size_, 0)),
      guard_(std::exchange(other.guard_, -1)),
      read_(std::move(other.read_)) {
  if (guard_ < 0)
    data_ = read_.data();
}

MappedFile::~MappedFile() {
  if (guard_ < 0)
    return;
  GuardSlot &slot = guardSlots[guard_];
  slot.start.store(0);
  munmap(const_cast<uint8_t *>(data_), size_);
  slot.end.store(0);
  slot.taken.store(false);
}

void MappedFile::release(size_t offset) {
  // From the start each time: pages let go once come back when read again.
  const size_t length = std::min(offset, size_) & ~(pageSize - 1);
  if (guard_ >= 0 && length > 0)
    madvise(const_cast<uint8_t *>(data_), length, MADV_DONTNEED);
}

bool MappedFile::cutShort() const { return guard_ >= 0 && guardSlots[guard_].cut.load(); }

} // namespace parlova
