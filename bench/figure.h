/* How a benchmark program hands a figure to bench/run-bench; bench/lib/figures.py says what the fields are. */
#ifndef BRISEL_BENCH_FIGURE_H
#define BRISEL_BENCH_FIGURE_H

#include <cstdio>
#include <string>
#include <vector>

inline std::string figure_samples(const std::vector<double> &samples) {
  std::string text = "[";
  for (const double sample : samples) text += (text.size() > 1 ? "," : "") + std::to_string(sample);
  return text + "]";
}

/* Texts without quotes. bare: samples of the reference of the same run, and beside what that is. */
inline void figure(const std::string &name, const char *unit, const std::vector<double> &ours,
                   const std::vector<double> &bare, const char *beside) {
  printf("FIGURE {\"name\":\"%s\",\"unit\":\"%s\",\"ours\":%s,\"bare\":%s,\"beside\":\"%s\"}\n", name.c_str(), unit,
         figure_samples(ours).c_str(), figure_samples(bare).c_str(), beside);
  fflush(stdout);
}

#endif
