#pragma once

#include <string>

namespace one_call {

// Makes system calls by their numbers, past the C library, which turns many of them into others. Results are the
// kernel's: below 0 is a negative errno.
//
// An argument may be a number or the address of static memory: the 32-bit entry does not reach stack and heap.

struct Numbers {
  int native;
  int compat = -1;  // as 32-bit programs number it
};

// Enters the kernel as a program of 64 bits does or, with `compat`, as one of 32 bits.
long Enter(bool compat, Numbers numbers, long a0, long a1 = 0, long a2 = 0, long a3 = 0, long a4 = 0);

// A copy of the text in static memory that stands until the process ends.
long Reachable(const std::string& text);
long Reachable(const void* data, unsigned size);

// One operation through io_uring; the members are those of a submission, and what each means is the operation's matter.
struct UringOperation {
  unsigned char code;
  int fd;
  long address;
  unsigned length = 0;
  long offset = 0;
  unsigned flags = 0;
  long address3 = 0;
};
long Submit(const UringOperation& operation);

}  // namespace one_call
