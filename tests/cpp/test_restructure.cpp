// The grouping of parallel slices against the plain search over chains it
// replaces, on random ranges: what no single end-to-end case shows.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "graph_dsl.h"
#include "restructure/restructure.h"

namespace tolm {
namespace {

using namespace testing_dsl;

struct Range {
  int64_t start, end;
  std::string out;
};

// The longest chain of non-overlapping ranges (sorted by start) from
// `start` on, searched over every chain; the first found wins a tie.
std::vector<size_t> chain_by_search(const std::vector<Range>& c, int64_t start) {
  std::vector<size_t> best;
  for (size_t i = 0; i < c.size(); ++i) {
    if (c[i].start < start) continue;
    const std::vector<Range> rest(c.begin() + static_cast<std::ptrdiff_t>(i) + 1, c.end());
    std::vector<size_t> tail = chain_by_search(rest, c[i].end);
    if (tail.size() + 1 > best.size()) {
      best = {i};
      for (size_t t : tail) best.push_back(t + i + 1);
    }
  }
  return best;
}

// Groups of Slice outputs, in Split output order, as the search makes them.
std::vector<names> groups_by_search(std::vector<Range> c) {
  std::stable_sort(c.begin(), c.end(), [](const Range& a, const Range& b) { return a.start < b.start; });
  std::vector<names> groups;
  while (!c.empty()) {
    const std::vector<size_t> idx = chain_by_search(c, c[0].start);
    if (idx.size() < 2) break;
    names g;
    for (size_t i : idx) g.push_back(c[i].out);
    groups.push_back(g);
    for (auto it = idx.rbegin(); it != idx.rend(); ++it) c.erase(c.begin() + static_cast<std::ptrdiff_t>(*it));
  }
  return groups;
}

TEST(ParallelSlices, GroupsAsTheSearchOverChains) {
  std::mt19937 rng(7);
  for (int round = 0; round < 200; ++round) {
    SCOPED_TRACE(round);
    TestGraph t;
    t.input("x", {2, 10});
    std::vector<Range> ranges;
    const int n = 2 + static_cast<int>(rng() % 6);
    NodePtr first;
    for (int k = 0; k < n; ++k) {
      const int64_t s = static_cast<int64_t>(rng() % 9);
      const int64_t e = s + 1 + static_cast<int64_t>(rng() % (10 - s));
      const std::string id = std::to_string(k);
      t.const_i64("st" + id, {s}).const_i64("en" + id, {e}).const_i64("ax" + id, {1}).const_i64("sp" + id, {1});
      NodePtr sl = t.node("Slice", {"x", "st" + id, "en" + id, "ax" + id, "sp" + id}, {"p" + id});
      t.shape("p" + id, {2, e - s});
      t.output("p" + id);
      if (!first) first = sl;
      ranges.push_back({s, e, "p" + id});
    }
    const std::vector<names> want = groups_by_search(ranges);
    const RuleResult res = _p_replace_parallel_slice_by_split(t.ir, {first}, nullptr);
    std::vector<names> got;
    for (const NodePtr& sp : res.add) {
      names outs;
      for (const std::string& o : sp->output)
        if (o.find("_invalid") == std::string::npos) outs.push_back(o);
      got.push_back(outs);
    }
    EXPECT_EQ(got, want);
  }
}

}  // namespace
}  // namespace tolm
