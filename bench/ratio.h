// Shared by the benchmark programs: a console reporter that keeps what it
// prints, and the "vexo / peer" table computed from those measurements, so
// both sides of every ratio come from the same run on the same machine.
#ifndef VEXO_BENCH_RATIO_H
#define VEXO_BENCH_RATIO_H

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace bench {

struct measurement {
  double ns = 0;  // CPU time per iteration
  std::map<std::string, double> counters;
};

class capture_reporter : public benchmark::ConsoleReporter {
 public:
  // Colour only on a terminal: the tables often end up in logs.
  capture_reporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(const std::vector<Run> &runs) override {
    for (const Run &r : runs) {
      if (r.error_occurred) {
        ++errors_;
        continue;
      }
      if (r.run_type != Run::RT_Iteration)
        continue;
      measurement m;
      m.ns = in_ns(r.GetAdjustedCPUTime(), r.time_unit);
      for (const auto &[key, counter] : r.counters)
        m.counters[key] = counter.value;
      std::string name = r.run_name.function_name;
      if (!r.run_name.args.empty())
        name += "/" + r.run_name.args;
      runs_[name].push_back(m);
    }
    ConsoleReporter::ReportRuns(runs);
  }

  // The median repetition of the benchmark `name`; none when it did not run.
  std::optional<measurement> find(const std::string &name) const {
    auto it = runs_.find(name);
    if (it == runs_.end() || it->second.empty())
      return std::nullopt;
    std::vector<measurement> sorted = it->second;
    std::sort(sorted.begin(), sorted.end(), [](const auto &a, const auto &b) { return a.ns < b.ns; });
    return sorted[sorted.size() / 2];
  }

  int errors() const { return errors_; }

 private:
  static double in_ns(double t, benchmark::TimeUnit unit) {
    switch (unit) {
      case benchmark::kSecond:
        return t * 1e9;
      case benchmark::kMillisecond:
        return t * 1e6;
      case benchmark::kMicrosecond:
        return t * 1e3;
      default:
        return t;
    }
  }

  std::map<std::string, std::vector<measurement>> runs_;
  int errors_ = 0;
};

enum class goal_kind { none, ratio_at_most, vexo_ns_at_most, vexo_gbps_at_least };

struct goal {
  goal_kind kind = goal_kind::none;
  double value = 0;
};

struct row {
  std::string label;
  std::string vexo;  // benchmark names
  std::string peer;
  goal target;
};

inline double gbps(const measurement &m) {
  auto it = m.counters.find("bytes_per_second");
  return it == m.counters.end() ? 0 : it->second / 1e9;
}

inline std::string goal_text(const goal &g) {
  char text[48];
  switch (g.kind) {
    case goal_kind::ratio_at_most:
      std::snprintf(text, sizeof text, "ratio <= %.3g", g.value);
      return text;
    case goal_kind::vexo_ns_at_most:
      std::snprintf(text, sizeof text, "vexo <= %.3g ns", g.value);
      return text;
    case goal_kind::vexo_gbps_at_least:
      std::snprintf(text, sizeof text, "vexo >= %.3g GB/s", g.value);
      return text;
    default:
      return "";
  }
}

inline bool goal_met(const goal &g, const measurement &vexo, const measurement &peer) {
  switch (g.kind) {
    case goal_kind::ratio_at_most:
      return vexo.ns / peer.ns <= g.value;
    case goal_kind::vexo_ns_at_most:
      return vexo.ns <= g.value;
    case goal_kind::vexo_gbps_at_least:
      return gbps(vexo) >= g.value;
    default:
      return true;
  }
}

// Prints the table; a row whose benchmarks did not run (filtered out)
// shows dashes. Returns whether every goal that could be judged was met.
inline bool print_ratio_table(const capture_reporter &rep, const char *title, const std::vector<row> &rows) {
  bool with_rates = false;
  for (const row &r : rows)
    if (const auto m = rep.find(r.vexo); m && gbps(*m) > 0)
      with_rates = true;

  std::printf("\nvexo / peer: %s\n", title);
  if (with_rates)
    std::printf("(CPU time per iteration; GB = 10^9 bytes)\n");
  else
    std::printf("(CPU time per iteration)\n");
  std::printf("%-28s %13s %13s %10s", "case", "vexo ns", "peer ns", "vexo/peer");
  if (with_rates)
    std::printf(" %10s %10s", "vexo GB/s", "peer GB/s");
  std::printf("   %-18s %s\n", "goal", "met");

  bool all_met = true;
  for (const row &r : rows) {
    const auto pv = rep.find(r.vexo);
    const auto pp = rep.find(r.peer);
    if (!pv || !pp) {
      std::printf("%-28s %13s %13s %10s\n", r.label.c_str(), "-", "-", "-");
      continue;
    }
    const measurement &vexo = *pv;
    const measurement &peer = *pp;
    std::printf("%-28s %13.2f %13.2f %10.2f", r.label.c_str(), vexo.ns, peer.ns, vexo.ns / peer.ns);
    if (with_rates)
      std::printf(" %10.2f %10.2f", gbps(vexo), gbps(peer));
    const bool met = goal_met(r.target, vexo, peer);
    all_met = all_met && met;
    std::printf("   %-18s %s\n", goal_text(r.target).c_str(),
                r.target.kind == goal_kind::none ? "" : (met ? "yes" : "NO"));
  }
  return all_met;
}

// Runs the registered benchmarks through `rep`; false on a bad command line
// or when a benchmark reported an error.
inline bool run_benchmarks(int argc, char **argv, capture_reporter &rep) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv))
    return false;
  benchmark::RunSpecifiedBenchmarks(&rep);
  benchmark::Shutdown();
  return rep.errors() == 0;
}

}  // namespace bench

#endif  // VEXO_BENCH_RATIO_H
