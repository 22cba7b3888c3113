#include "host/log.h"

#include <deque>
#include <iostream>
#include <mutex>

namespace tolm {
namespace tolmLog {
namespace {

// Enough for any single reduce run to be inspected; older entries fall off.
constexpr size_t kHistoryCap = 1000;

struct State {
  std::mutex mu;
  Sink sink = [](Level level, const std::string& msg) {
    std::cerr << (level == Level::Error ? "[tolm][E] " : "[tolm][W] ") << msg << '\n';
  };
  // Messages as the rules wrote them, without a level tag, so that a caller
  // can compare them with the rule's text directly.
  std::deque<std::string> history;
};

State& state() {
  static State s;
  return s;
}

void emit(Level level, const std::string& msg) {
  State& s = state();
  Sink sink;
  {
    std::lock_guard<std::mutex> lock(s.mu);
    s.history.push_back(msg);
    while (s.history.size() > kHistoryCap) s.history.pop_front();
    sink = s.sink;
  }
  if (sink) sink(level, msg);
}

}  // namespace

void e(const std::string& msg) { emit(Level::Error, msg); }
void w(const std::string& msg) { emit(Level::Warning, msg); }

void set_sink(Sink sink) {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  s.sink = std::move(sink);
}

std::vector<std::string> history() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  return {s.history.begin(), s.history.end()};
}

void clear_history() {
  State& s = state();
  std::lock_guard<std::mutex> lock(s.mu);
  s.history.clear();
}

}  // namespace tolmLog
}  // namespace tolm
