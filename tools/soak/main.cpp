// ovfeedback-soak: runs the feedback plug-in, loaded as a host loads it, through years of simulated time
// against two local feedback servers, with faults drawn from a seed, and stops at the first broken invariant.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <memory>
#include <string>
#include <vector>

#include "BuildConfig.h"
#include "Host.h"
#include "Receivers.h"
#include "Report.h"
#include "RuntimeConfig.h"
#include "Soak.h"

namespace {

// The host part of an https URL: what the receivers must be reached under.
std::string HostOf(const std::string& url) {
  const size_t start = url.find("://");
  const size_t from = start == std::string::npos ? 0 : start + 3;
  return url.substr(from, url.find_first_of(":/", from) - from);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app{"Soak run of the feedback plug-in on the held simulated clock, against two local receivers."};
  uint64_t seed = 1, seeds = 1;
  unsigned years = 1;
  unsigned long requestLimitMs = 1500;
  std::string csv, plot, plugin = OVF_PLUGIN_PATH, receiverBinary = OVF_RECEIVER_PATH,
                         work = std::filesystem::temp_directory_path() / "ovfeedback-soak";
  bool verbose = false;
  app.add_option("--seed", seed, "first seed")->capture_default_str();
  app.add_option("--seeds", seeds, "how many seeds, from --seed on")->capture_default_str()->check(CLI::PositiveNumber);
  app.add_option("--years", years, "simulated years per seed")->capture_default_str()->check(CLI::Range(1u, 100u));
  app.add_option("--csv", csv, "write a row per simulated week of every seed to FILE");
  app.add_option("--plot", plot, "draw the first seed's run into FILE.svg");
  app.add_option("--plugin", plugin, "the plug-in to dlopen")->capture_default_str();
  app.add_option("--receiver", receiverBinary, "the ovfeedback-receiver binary")->capture_default_str();
  app.add_option("--work", work, "directory for the receivers, their certificates, dumps and reports")
      ->capture_default_str();
  app.add_option("--request-limit-ms", requestLimitMs,
                 "the host's bound on one request, which a hanging server costs in real time")
      ->capture_default_str();
  app.add_flag("-v,--verbose", verbose, "print each event as it is applied");
  app.footer(std::string("The service works under the build's install root, ") + OVF_INSTALL_ROOT +
             "; its feedback tree there is wiped at each seed (the soak refuses a tree it did not make).");
  CLI11_PARSE(app, argc, argv);

  try {
    std::filesystem::create_directories(work);
    const std::string pki = work + "/pki";
    soak::MakeTestPki(pki);
    soak::Receiver primary(receiverBinary, pki, work + "/primary", HostOf(OVF_PRIMARY_URL));
    soak::Receiver secondary(receiverBinary, pki, work + "/secondary", HostOf(OVF_SECONDARY_URL));
    SuiteRuntime::SetTrustedCAFile(pki + "/ca.pem");
    SuiteRuntime::SetConnectTo({primary.ConnectTo(), secondary.ConnectTo()});
    SuiteRuntime::SetRequestTimeLimitMs(requestLimitMs);

    soak::PluginLibrary library(plugin);
    if (!library.Error().empty()) {
      fprintf(stderr, "ovfeedback-soak: cannot load %s: %s\n", plugin.c_str(), library.Error().c_str());
      return 2;
    }
    soak::LogWatch log;
    soak::LoopView loop;
    soak::Bench bench{library, primary, secondary, log, loop, work, verbose};
    soak::Totals totals;
    std::ofstream csvFile;
    if (!csv.empty()) {
      csvFile.open(csv);
      if (!soak::WriteCsvHeader(csvFile)) throw std::runtime_error("cannot write " + csv);
    }
    bool ok = true;
    for (uint64_t s = seed; s < seed + seeds && ok; ++s) {
      soak::SoakRun run(bench, s, years);
      ok = run.Run();
      if (csvFile.is_open()) soak::WriteCsvRows(csvFile, run.Rows());
      if (!plot.empty() && s == seed) {
        soak::WritePlot(plot, run.Rows(), "ovfeedback-soak seed " + std::to_string(s) + ", " + std::to_string(years) +
                                              " simulated year(s)");
      }
      soak::PrintYears(stdout, s, run.Years());
      if (ok) {
        totals.Add(run.Result());
        printf("seed %llu: %u year(s) passed in %.1f s\n", static_cast<unsigned long long>(s), years,
               run.Result().realSeconds);
      } else {
        fprintf(stderr, "ovfeedback-soak: INVARIANT BROKEN: %s\n", run.Violation().c_str());
      }
      fflush(stdout);
    }
    soak::PrintSummary(stdout, totals);
    return ok ? 0 : 1;
  } catch (const std::exception& e) {
    fprintf(stderr, "ovfeedback-soak: %s\n", e.what());
    return 2;
  }
}
