#pragma once

namespace zagent::common::util {

// Freed memory goes back to the system in two steps, because the allocator keeps up to seven blocks of each small size
// for every thread that has freed them, wherever they lie: behind a burst a few hundred of them hold a page each for as
// long as their thread sleeps, and no trim finds them.

// Gives back what is free by now and what is kept for the calling thread, and asks all others for what is kept for
// them. 1 when memory went back to the system, else 0. From any thread.
int TrimHeap();

// For a thread that has nothing to do: frees what is kept for it, so that the next trim gives it back, if TrimHeap has
// asked since the thread's last time, or ever when it is the first. Else it costs a look. Does nothing where no thread
// can be made: what a thread frees is kept for it again, unless another frees it and ends.
void FreeKeptBlocks() noexcept;

}  // namespace zagent::common::util
