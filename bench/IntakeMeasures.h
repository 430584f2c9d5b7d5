#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "src/edr/Event.h"

namespace zagent::bench {

// What one way through the intake cost: seconds of processor time of the whole process, and how many events came out.
struct IntakeCost {
  double user = 0;
  double system = 0;
  std::size_t events = 0;
  [[nodiscard]] double Total() const { return user + system; }
};

// Feed to typed, validated events, a mebibyte at a time: hands those of each piece to `keep`.
void BuildTypedEvents(const std::string& log,
                      const std::function<void(std::vector<std::unique_ptr<edr::Event>>&&)>& keep);

// Bare auparse_feed with an empty callback, a mebibyte at a time; counts audit events.
IntakeCost MeasureAuparse(const std::string& log);
// Feed to typed, validated events, a mebibyte at a time.
IntakeCost MeasureTypedEvents(const std::string& log);

// What a channel hands over at once: 64 KiB (the dispatcher's) or one record (the kernel's).
enum class Reads { Bursts, Records };
// Through both threads into an engine that does nothing. `expected` is what MeasureTypedEvents counted: the engine
// tells when it has seen as many.
IntakeCost MeasurePipeline(const std::string& log, Reads reads, std::size_t expected);

// Bytes of heap that an event holds on average while it waits in a queue.
double HeapOfAnEvent(const std::string& log);

}  // namespace zagent::bench

// Does what the two first measures do, without measuring. Callgrind counts what happens within, and finds it by its
// name.
extern "C" void OstrelBenchCounted(const std::string& log, bool typed);
