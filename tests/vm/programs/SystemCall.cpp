#include "SystemCall.h"

#include <linux/io_uring.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace one_call {
namespace {

// The program is linked to a fixed place in the lowest 4 GiB, so that a 32-bit register holds the address.
char arena[1 << 16];
unsigned arena_used = 0;

long EnterAs32Bit(int number, long a0, long a1, long a2, long a3, long a4) {
  long result = 0;
  asm volatile("int $0x80"
               : "=a"(result)
               : "a"(number), "b"(a0), "c"(a1), "d"(a2), "S"(a3), "D"(a4)
               : "memory", "r8", "r9", "r10", "r11");
  return static_cast<int>(result);
}

void* Map(int fd, size_t size, long what) {
  void* at = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, fd, what);
  if (at == MAP_FAILED) throw std::runtime_error("cannot map the ring");
  return at;
}

template <typename T>
T& At(void* base, unsigned offset) {
  return *reinterpret_cast<T*>(static_cast<char*>(base) + offset);
}

}  // namespace

long Enter(bool compat, Numbers numbers, long a0, long a1, long a2, long a3, long a4) {
  if (compat) return EnterAs32Bit(numbers.compat, a0, a1, a2, a3, a4);
  const long result = syscall(numbers.native, a0, a1, a2, a3, a4);
  return result < 0 ? -errno : result;
}

long Reachable(const void* data, unsigned size) {
  if (arena_used + size > sizeof(arena)) throw std::runtime_error("too many names");
  char* place = arena + arena_used;
  memcpy(place, data, size);
  arena_used += (size + 7) & ~7U;
  return reinterpret_cast<long>(place);
}

long Reachable(const std::string& text) {
  return Reachable(text.c_str(), static_cast<unsigned>(text.size() + 1));
}

long Submit(const UringOperation& operation) {
  io_uring_params params{};
  const int ring = static_cast<int>(syscall(SYS_io_uring_setup, 4, &params));
  if (ring < 0) return -errno;
  void* submissions = Map(ring, params.sq_off.array + params.sq_entries * sizeof(unsigned), IORING_OFF_SQ_RING);
  void* completions = Map(ring, params.cq_off.cqes + params.cq_entries * sizeof(io_uring_cqe), IORING_OFF_CQ_RING);
  auto* entry = static_cast<io_uring_sqe*>(Map(ring, params.sq_entries * sizeof(io_uring_sqe), IORING_OFF_SQES));
  entry->opcode = operation.code;
  entry->fd = operation.fd;
  entry->addr = static_cast<unsigned long>(operation.address);
  entry->len = operation.length;
  entry->off = static_cast<unsigned long>(operation.offset);
  entry->open_flags = operation.flags;
  entry->addr3 = static_cast<unsigned long>(operation.address3);
  At<unsigned>(submissions, params.sq_off.array) = 0;
  std::atomic_ref(At<unsigned>(submissions, params.sq_off.tail)).store(1);
  if (syscall(SYS_io_uring_enter, ring, 1, 1, IORING_ENTER_GETEVENTS, nullptr, 0) < 0) return -errno;
  return At<io_uring_cqe>(completions, params.cq_off.cqes).res;
}

}  // namespace one_call
