#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "notify/config.h"
#include "notify/eventSource.h"
#include "notify/stopSignal.h"
#include "notify/target.h"

/// Takes events from the database to the target, in their order, until the signal. Each is
/// delivered at least once; twice only when the program or the database ends between the delivery
/// and its record. Owned by one thread.
class Delivery {
 public:
  /// All of them outlive this object.
  Delivery(const NotifyConfig& given, Target& receiver, const StopSignal& signal)
      : config(given), target(receiver), stop(signal) {}

  /// Works until the signal; a lost database is connected to again. With `onlyPresent`, ends when
  /// no event is left.
  void run(bool onlyPresent);

 private:
  void serve(EventSource& source, bool onlyPresent);
  bool awaitClaim(EventSource& source);
  void deliverAll(EventSource& source, const std::vector<Event>& events);
  void deliverGroup(EventSource& source, const std::vector<Event>& group);
  void deliverEach(EventSource& source, const std::vector<Event>& group);
  void finish(EventSource& source, const std::string& position);
  std::string tryRepeatedly(const std::vector<Event>& group);

  const NotifyConfig& config;
  Target& target;
  const StopSignal& stop;
  std::string delivered;  // the position up to which all is delivered, not yet recorded; "": none
  bool isDone = false;    // no event is left
};
