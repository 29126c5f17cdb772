// intf_bench: runs every benchmark pair, then prints one summary line per
// comparison:
//    BENCH <name> <figure> <= <target>     (or >= where more is better)
// For timed pairs the figure is median CPU time per iteration of ours over
// that of the baseline, both measured in this run with their repetitions
// randomly interleaved, so that a disturbance hits both sides alike.
#include "Bench.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <regex>
#include <string>
#include <vector>

namespace IntfBench {

namespace {

struct Entry {
   std::string name;
   std::string target;
   Sense sense;
   std::function<double()> measure;  // figures only; empty for timed pairs
   std::vector<std::string> references;  // labels of "<name>/reference<i>"
   std::vector<std::function<void()>> notes;
};

std::vector<Entry> & entries() {
   static std::vector<Entry> e;
   return e;
}

std::string oursName(std::string const & n) { return n + "/ours"; }
std::string baselineName(std::string const & n) { return n + "/baseline"; }
std::string referenceName(std::string const & n, size_t i) {
   return n + "/reference" + std::to_string(i + 1);
}

// Collects the per-iteration CPU time of every repetition and shows only
// the median row of each benchmark (every row when there is one repetition).
class Collector : public benchmark::ConsoleReporter {
 public:
   Collector() : benchmark::ConsoleReporter(OO_None) {}

   void ReportRuns(std::vector<Run> const & runs) override {
      std::vector<Run> shown;
      for (auto const & r : runs) {
         std::string const & name = r.run_name.function_name;
         if (r.error_occurred) {
            errors_[name] = r.error_message;
            shown.push_back(r);
            continue;
         }
         if (r.run_type == Run::RT_Iteration) {
            samples_[name].push_back(r.GetAdjustedCPUTime());
            if (r.repetitions <= 1) shown.push_back(r);
         } else if (r.aggregate_name == "median") {
            shown.push_back(r);
         }
      }
      if (!shown.empty()) ConsoleReporter::ReportRuns(shown);
   }

   // Median per-iteration CPU time in ns; false if the benchmark did not run.
   bool median(std::string const & name, double * out, size_t * runs) const {
      auto it = samples_.find(name);
      if (it == samples_.end() || it->second.empty() || errors_.count(name)) return false;
      std::vector<double> v = it->second;
      std::sort(v.begin(), v.end());
      size_t n = v.size();
      *out = n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
      *runs = n;
      return true;
   }

   std::string error(std::string const & name) const {
      auto it = errors_.find(name);
      return it == errors_.end() ? std::string() : it->second;
   }

 private:
   std::map<std::string, std::vector<double>> samples_;
   std::map<std::string, std::string> errors_;
};

// Counted figures follow --benchmark_filter as the timed pairs do
// (a leading '-' negates it).
bool selected(std::string const & name, std::string filter) {
   if (filter.empty() || filter == "all") return true;
   bool negate = filter[0] == '-';
   if (negate) filter.erase(0, 1);
   try {
      return std::regex_search(name, std::regex(filter, std::regex::extended)) != negate;
   } catch (std::regex_error const &) {
      return true;
   }
}

void printLine(Entry const & e, double figure) {
   std::printf("BENCH %s %.2f %s %s\n", e.name.c_str(), figure,
               e.sense == Sense::AtMost ? "<=" : ">=", e.target.c_str());
}

} // namespace

void addPair(const char * name, const char * target, BenchFn ours, BenchFn baseline,
             Sense sense) {
   entries().push_back(Entry{name, target, sense, {}, {}, {}});
   benchmark::RegisterBenchmark(oursName(name).c_str(), std::move(ours))
       ->Unit(benchmark::kNanosecond);
   benchmark::RegisterBenchmark(baselineName(name).c_str(), std::move(baseline))
       ->Unit(benchmark::kNanosecond);
}

void addReference(const char * name, const char * label, BenchFn fn) {
   for (auto & e : entries()) {
      if (e.name != name) continue;
      benchmark::RegisterBenchmark(referenceName(e.name, e.references.size()).c_str(), std::move(fn))
          ->Unit(benchmark::kNanosecond);
      e.references.push_back(label);
      return;
   }
}

void addNote(const char * name, std::function<void()> print) {
   for (auto & e : entries()) {
      if (e.name == name) e.notes.push_back(std::move(print));
   }
}

void addFigure(const char * name, const char * target, std::function<double()> measure,
               Sense sense) {
   entries().push_back(Entry{name, target, sense, std::move(measure), {}, {}});
}

} // namespace IntfBench

int main(int argc, char ** argv) {
   using namespace IntfBench;
   // Defaults first: flags given on the command line come later and win.
   std::vector<std::string> defaults = {
       "--benchmark_repetitions=15",
       "--benchmark_min_time=0.1",
       "--benchmark_enable_random_interleaving=true",
   };
   std::vector<char *> args{argv[0]};
   for (auto & d : defaults) args.push_back(d.data());
   std::string filter;
   const std::string filterFlag = "--benchmark_filter=";
   for (int i = 1; i < argc; ++i) {
      args.push_back(argv[i]);
      if (std::string(argv[i]).rfind(filterFlag, 0) == 0) filter = argv[i] + filterFlag.size();
   }
   int n = int(args.size());
   args.push_back(nullptr);
   benchmark::Initialize(&n, args.data());
   if (benchmark::ReportUnrecognizedArguments(n, args.data())) return 1;

   registerEntityBenches();
   registerHashMapBenches();
   registerTextBenches();
   registerRatesBenches();
   registerReplicationBenches();
   registerScaleBenches();
   registerShmBenches();
   registerCounterBenches();
   registerAgentBenches();

   Collector collector;
   benchmark::RunSpecifiedBenchmarks(&collector);
   benchmark::Shutdown();

   std::printf("\n== summary (figure = median CPU time ours / baseline unless noted)\n");
   for (auto const & e : entries()) {
      if (e.measure) {
         if (!selected(e.name, filter)) continue;
         // A figure that could not be measured here (NaN) has said why.
         if (double f = e.measure(); !std::isnan(f)) printLine(e, f);
         continue;
      }
      double ours = 0, base = 0;
      size_t nOurs = 0, nBase = 0;
      if (!collector.median(oursName(e.name), &ours, &nOurs) ||
          !collector.median(baselineName(e.name), &base, &nBase) || base <= 0) {
         // Filtered out: nothing to say. Failed: say why, and give no figure.
         std::string err = collector.error(oursName(e.name));
         if (err.empty()) err = collector.error(baselineName(e.name));
         if (!err.empty()) std::printf("%s: not measured: %s\n", e.name.c_str(), err.c_str());
         continue;
      }
      std::printf("%s: ours %.2f ns, baseline %.2f ns (medians of %zu and %zu runs)\n",
                  e.name.c_str(), ours, base, nOurs, nBase);
      for (auto const & note : e.notes) note();
      for (size_t i = 0; i < e.references.size(); ++i) {
         double ref = 0;
         size_t nRef = 0;
         if (collector.median(referenceName(e.name, i), &ref, &nRef)) {
            std::printf("%s: for reference, %s: %.2f ns\n", e.name.c_str(),
                        e.references[i].c_str(), ref);
         }
      }
      printLine(e, ours / base);
   }
   return 0;
}
