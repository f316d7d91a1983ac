// Times of work that is done in rounds beside other work.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

using Work = std::function<void()>;

inline double microseconds(const Work& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

// The value below which that share of them lies.
inline double quantile(std::vector<double> values, double share) {
  const auto place = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1));
  std::nth_element(values.begin(), values.begin() + place, values.end());
  return values[static_cast<size_t>(place)];
}
inline double median(const std::vector<double>& values) { return quantile(values, 0.5); }

// The microseconds of each work, round by round. Whose turn comes first changes with each round, so that a change of
// the machine's pace meets them all; a tenth as many rounds before do not count.
inline std::vector<std::vector<double>> timesOf(const std::vector<Work>& works, int rounds) {
  std::vector<std::vector<double>> times(works.size());
  for (int round = -rounds / 10; round < rounds; ++round) {
    for (size_t turn = 0; turn < works.size(); ++turn) {
      const size_t which = (turn + static_cast<size_t>(round + rounds)) % works.size();
      const double time = microseconds(works[which]);
      if (round >= 0) times[which].push_back(time);
    }
  }
  return times;
}

// The median of the quotients, round by round.
inline double medianRatio(const std::vector<double>& ours, const std::vector<double>& theirs) {
  std::vector<double> ratios;
  for (size_t i = 0; i < ours.size(); ++i) ratios.push_back(ours[i] / theirs[i]);
  return median(ratios);
}
