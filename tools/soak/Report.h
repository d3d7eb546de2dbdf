// What a soak run reports: a row per simulated week for the CSV and the plot, and the totals of the summary.
#pragma once

#include <cstdint>
#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

#include "Ledger.h"
#include "Observe.h"
#include "Schedule.h"

namespace soak {

struct WeekRow {
  uint64_t seed = 0;
  double runDays = 0;
  uint32_t clock = 0;  // the simulated clock's seconds since the epoch
  uint64_t posts = 0;  // files the receivers stored, so far
  uint64_t bothRefused = 0, sizeRefused = 0, gaveUp = 0;  // failed posts by kind, so far
  uint64_t retries = 0;
  unsigned queue = 0;  // files in the outbound directory
  uint64_t pendingRecords = 0, lostRecords = 0;
  ProcessSample process;
};

struct YearSample {
  unsigned year = 0;
  double realSeconds = 0;
  ProcessSample process;
};

struct Totals {
  uint64_t seeds = 0;
  double years = 0;
  double realSeconds = 0;
  uint64_t posts = 0, duplicates = 0, duplicateRecords = 0, feedbackFiles = 0;
  uint64_t bothRefused = 0, sizeRefused = 0, gaveUp = 0, retries = 0;
  uint64_t events[static_cast<size_t>(EventKind::eCount)] = {};
  uint64_t skipped[static_cast<size_t>(EventKind::eCount)] = {};
  uint64_t faults[static_cast<size_t>(Fault::eCount)] = {};
  uint64_t oversizeDumps = 0, oversizeThreats = 0, badFiles[3] = {};
  uint64_t written = 0, delivered = 0, pending = 0;
  uint64_t lost[static_cast<size_t>(Loss::eCount)] = {};
  uint64_t starts = 0, refusedStarts = 0, stops = 0;
  uint64_t midPostStops = 0;  // stops made while the primary held a post
  double maxStopCall = 0, maxStopReturn = 0, maxMidPostReturn = 0;
  uint64_t loopPasses = 0;
  ProcessSample first, last;  // the first seed's start, the last seed's end

  void Add(const Totals& other);
};

// The CSV's header line, then the rows of one seed at a time.
bool WriteCsvHeader(std::ostream& out);
bool WriteCsvRows(std::ostream& out, const std::vector<WeekRow>& rows);
// A small SVG of one seed's run: posts and failures, queue length, memory, over simulated days.
bool WritePlot(const std::string& path, const std::vector<WeekRow>& rows, const std::string& title);
void PrintYears(FILE* out, uint64_t seed, const std::vector<YearSample>& years);
void PrintSummary(FILE* out, const Totals& totals);

}  // namespace soak
