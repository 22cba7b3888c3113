// tolmLog: the rules' logger. `e` and `w` take one message each and never stop
// a rule. Messages go to a sink (stderr unless one is installed) and are kept
// in a short history that tests and the report read.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace tolm {
namespace tolmLog {

enum class Level { Error, Warning };
using Sink = std::function<void(Level, const std::string&)>;

void e(const std::string& msg);
void w(const std::string& msg);
// Replaces the sink; an empty function silences output (history still kept).
void set_sink(Sink sink);
std::vector<std::string> history();
void clear_history();

}  // namespace tolmLog
}  // namespace tolm
