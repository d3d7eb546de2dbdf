// CSV, SVG and the printed summary of soak runs.
#include "Report.h"

#include <algorithm>
#include <fstream>
#include <functional>
#include <sstream>

namespace soak {
namespace {

constexpr double kMiB = 1024.0 * 1024.0;

struct Series {
  const char* name;
  const char* colour;
  std::function<double(const WeekRow&)> value;
};

// One panel: its series as polylines over the run's days, scaled to the panel's largest value.
void Panel(std::ostringstream& svg, const std::vector<WeekRow>& rows, const std::vector<Series>& series,
           const char* title, double top, double width, double height) {
  const double left = 60, plotWidth = width - left - 20, plotHeight = height - 40;
  const double days = std::max(1.0, rows.back().runDays);
  double peak = 1;
  for (const Series& s : series) {
    for (const WeekRow& row : rows) peak = std::max(peak, s.value(row));
  }
  svg << "<g transform=\"translate(0," << top << ")\">\n";
  svg << "<text x=\"" << left << "\" y=\"14\" font-size=\"13\">" << title << "</text>\n";
  svg << "<rect x=\"" << left << "\" y=\"20\" width=\"" << plotWidth << "\" height=\"" << plotHeight
      << "\" fill=\"none\" stroke=\"#999\"/>\n";
  svg << "<text x=\"" << left - 4 << "\" y=\"28\" font-size=\"10\" text-anchor=\"end\">" << peak << "</text>\n";
  svg << "<text x=\"" << left - 4 << "\" y=\"" << 20 + plotHeight << "\" font-size=\"10\" text-anchor=\"end\">0</text>\n";
  double legend = left + plotWidth;
  for (auto it = series.rbegin(); it != series.rend(); ++it) {
    legend -= 150;
    svg << "<text x=\"" << legend << "\" y=\"14\" font-size=\"11\" fill=\"" << it->colour << "\">" << it->name
        << "</text>\n";
  }
  for (const Series& s : series) {
    svg << "<polyline fill=\"none\" stroke=\"" << s.colour << "\" stroke-width=\"1.5\" points=\"";
    for (const WeekRow& row : rows) {
      svg << left + row.runDays / days * plotWidth << "," << 20 + plotHeight - s.value(row) / peak * plotHeight << " ";
    }
    svg << "\"/>\n";
  }
  svg << "</g>\n";
}

}  // namespace

void Totals::Add(const Totals& o) {
  if (seeds == 0) first = o.first;
  seeds += o.seeds;
  years += o.years;
  realSeconds += o.realSeconds;
  posts += o.posts;
  duplicates += o.duplicates;
  duplicateRecords += o.duplicateRecords;
  feedbackFiles += o.feedbackFiles;
  bothRefused += o.bothRefused;
  sizeRefused += o.sizeRefused;
  gaveUp += o.gaveUp;
  retries += o.retries;
  for (size_t i = 0; i < std::size(events); ++i) events[i] += o.events[i], skipped[i] += o.skipped[i];
  for (size_t i = 0; i < std::size(faults); ++i) faults[i] += o.faults[i];
  for (size_t i = 0; i < std::size(badFiles); ++i) badFiles[i] += o.badFiles[i];
  oversizeDumps += o.oversizeDumps;
  oversizeThreats += o.oversizeThreats;
  written += o.written;
  delivered += o.delivered;
  pending += o.pending;
  for (size_t i = 0; i < std::size(lost); ++i) lost[i] += o.lost[i];
  starts += o.starts;
  refusedStarts += o.refusedStarts;
  stops += o.stops;
  maxStopCall = std::max(maxStopCall, o.maxStopCall);
  maxStopReturn = std::max(maxStopReturn, o.maxStopReturn);
  midPostStops += o.midPostStops;
  maxMidPostReturn = std::max(maxMidPostReturn, o.maxMidPostReturn);
  loopPasses += o.loopPasses;
  last = o.last;
}

bool WriteCsvHeader(std::ostream& out) {
  // fds: the soak's own lock descriptors left out.
  out << "seed,run_days,clock,posts,failed_both_servers,failed_size,failed_gave_up,retries,queue_length,"
         "records_pending,records_lost,rss_kib,heap_kib,fds\n";
  return static_cast<bool>(out.flush());
}

bool WriteCsvRows(std::ostream& out, const std::vector<WeekRow>& rows) {
  for (const WeekRow& r : rows) {
    out << r.seed << ',' << r.runDays << ',' << r.clock << ',' << r.posts << ',' << r.bothRefused << ','
        << r.sizeRefused << ',' << r.gaveUp << ',' << r.retries << ',' << r.queue << ',' << r.pendingRecords << ','
        << r.lostRecords << ',' << r.process.rssBytes / 1024 << ',' << r.process.heapBytes / 1024 << ','
        << r.process.fds << '\n';
  }
  return static_cast<bool>(out.flush());
}

bool WritePlot(const std::string& path, const std::vector<WeekRow>& rows, const std::string& title) {
  if (rows.empty()) return false;
  const double width = 900, panel = 190;
  std::ostringstream svg;
  svg << "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"" << width << "\" height=\"" << 3 * panel + 50
      << "\" font-family=\"sans-serif\">\n<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n";
  svg << "<text x=\"60\" y=\"22\" font-size=\"15\">" << title << "</text>\n";
  Panel(svg, rows,
        {{"posts stored", "#1f77b4", [](const WeekRow& r) { return double(r.posts); }},
         {"failed posts", "#d62728",
          [](const WeekRow& r) { return double(r.bothRefused + r.sizeRefused + r.gaveUp); }},
         {"retry passes", "#ff7f0e", [](const WeekRow& r) { return double(r.retries); }}},
        "posts and failures, cumulative", 35, width, panel);
  Panel(svg, rows, {{"outbound files", "#2ca02c", [](const WeekRow& r) { return double(r.queue); }}},
        "queue length", 35 + panel, width, panel);
  Panel(svg, rows,
        {{"RSS MiB", "#9467bd", [](const WeekRow& r) { return r.process.rssBytes / kMiB; }},
         {"live heap MiB", "#8c564b", [](const WeekRow& r) { return r.process.heapBytes / kMiB; }},
         {"descriptors", "#7f7f7f", [](const WeekRow& r) { return double(r.process.fds); }}},
        "memory and descriptors", 35 + 2 * panel, width, panel);
  svg << "<text x=\"60\" y=\"" << 3 * panel + 45 << "\" font-size=\"11\">simulated days: 0 to "
      << rows.back().runDays << "</text>\n</svg>\n";
  std::ofstream out(path);
  out << svg.str();
  return static_cast<bool>(out.flush());
}

void PrintYears(FILE* out, uint64_t seed, const std::vector<YearSample>& years) {
  for (const YearSample& y : years) {
    fprintf(out, "  seed %llu year %u: %.1f s real, RSS %.1f MiB, live heap %.2f MiB, %u descriptors\n",
            static_cast<unsigned long long>(seed), y.year, y.realSeconds, y.process.rssBytes / kMiB,
            y.process.heapBytes / kMiB, y.process.fds);
  }
}

void PrintSummary(FILE* out, const Totals& t) {
  fprintf(out, "\nsoak summary: %llu seed(s), %.1f simulated years, %.1f s real (%.2f s per simulated year)\n",
          static_cast<unsigned long long>(t.seeds), t.years, t.realSeconds,
          t.years > 0 ? t.realSeconds / t.years : 0.0);
  fprintf(out, "  posts stored by the receivers: %llu (%llu of them a file stored before, %llu records in those)\n",
          static_cast<unsigned long long>(t.posts), static_cast<unsigned long long>(t.duplicates),
          static_cast<unsigned long long>(t.duplicateRecords));
  fprintf(out, "  feedback files written: %llu; loop passes: %llu\n", static_cast<unsigned long long>(t.feedbackFiles),
          static_cast<unsigned long long>(t.loopPasses));
  fprintf(out, "  failed posts: %llu refused by both servers, %llu over the size limit, %llu given up; retry passes: %llu\n",
          static_cast<unsigned long long>(t.bothRefused), static_cast<unsigned long long>(t.sizeRefused),
          static_cast<unsigned long long>(t.gaveUp), static_cast<unsigned long long>(t.retries));
  fprintf(out, "  events injected:\n");
  for (size_t i = 0; i < std::size(t.events); ++i) {
    fprintf(out, "    %-24s %6llu", EventName(static_cast<EventKind>(i)), static_cast<unsigned long long>(t.events[i]));
    if (t.skipped[i] != 0) fprintf(out, "  (%llu not applicable when due)", static_cast<unsigned long long>(t.skipped[i]));
    fputc('\n', out);
  }
  fprintf(out, "  receiver faults:");
  for (size_t i = 0; i < std::size(t.faults); ++i) {
    fprintf(out, " %s %llu;", FaultName(static_cast<Fault>(i)), static_cast<unsigned long long>(t.faults[i]));
  }
  fprintf(out, "\n  broken module files: corrupt %llu, empty %llu, nested too deep %llu; over 16 MiB: %llu dumps, %llu threat reports\n",
          static_cast<unsigned long long>(t.badFiles[0]), static_cast<unsigned long long>(t.badFiles[1]),
          static_cast<unsigned long long>(t.badFiles[2]), static_cast<unsigned long long>(t.oversizeDumps),
          static_cast<unsigned long long>(t.oversizeThreats));
  fprintf(out, "  service starts: %llu (%llu refused once after re-enabling, as described), stops: %llu, %llu of them "
               "while the primary held a post\n",
          static_cast<unsigned long long>(t.starts), static_cast<unsigned long long>(t.refusedStarts),
          static_cast<unsigned long long>(t.stops), static_cast<unsigned long long>(t.midPostStops));
  fprintf(out, "  slowest StopPhoneHome %.1f ms; slowest StartPhoneHome return after it %.1f ms (%.1f ms mid-post)\n",
          t.maxStopCall * 1000, t.maxStopReturn * 1000, t.maxMidPostReturn * 1000);
  fprintf(out, "  module records: %llu written, %llu delivered, %llu still pending at the end\n",
          static_cast<unsigned long long>(t.written), static_cast<unsigned long long>(t.delivered),
          static_cast<unsigned long long>(t.pending));
  fprintf(out, "  records lost in described ways:\n");
  for (size_t i = 0; i < std::size(t.lost); ++i) {
    fprintf(out, "    %-70s %llu\n", LossName(static_cast<Loss>(i)), static_cast<unsigned long long>(t.lost[i]));
  }
  fprintf(out, "  memory: RSS %.1f -> %.1f MiB, live heap %.2f -> %.2f MiB, descriptors %u -> %u\n",
          t.first.rssBytes / kMiB, t.last.rssBytes / kMiB, t.first.heapBytes / kMiB, t.last.heapBytes / kMiB,
          t.first.fds, t.last.fds);
}

}  // namespace soak
