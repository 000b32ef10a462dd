// `tarnlift doctor`: finds and names what keeps network installation from
// working on this machine and segment: the interface for the client
// address, programs holding the server's UDP ports, missing privileges,
// firewall rules that drop the ports, missing boot image records, package
// files that are skipped, the local disk road's programs and records, and
// (with --probe) other BOOTP/DHCP servers on the segment. One line per
// finding, "ok", "warn" or "fail" first; exit 1 when anything failed.
#include <chrono>
#include <iostream>
#include <memory>

#include "app/log.h"
#include "cli/cli_options.h"
#include "cli/command.h"
#include "cli/firewall_rules.h"
#include "doctor/checks.h"
#include "doctor/probe.h"
#include "install/headless.h"
#include "install/install_command.h"
#include "netboot/boot_images.h"
#include "netboot/interfaces.h"
#include "web/json_text.h"

namespace tarnlift::cli {
namespace {

using doctor::Finding;
using doctor::Level;

constexpr uint64_t kLongestProbeSeconds = 300;

struct DoctorArguments {
  std::string clientText;
  std::string interfaceName;
  std::string packages = ".";
  std::string bootImages;
  bool probe = false;
  std::string probeSecondsText;
  bool json = false;
};

nlohmann::json findingJson(const Finding& f) {
  return {{"level", doctor::levelText(f.level)}, {"check", f.check}, {"found", f.found}, {"fix", f.fix}};
}

int runDoctor(const DoctorArguments& a) {
  uint32_t client = 0;
  if (!a.clientText.empty()) {
    client = install::addressFromText(a.clientText);
    if (client == 0) return usageError("--client-address needs A.B.C.D, not " + a.clientText);
  }
  int probeMillis = doctor::kProbeMillis;
  if (!a.probeSecondsText.empty()) {
    uint64_t seconds = 0;
    if (!parseUnsigned(a.probeSecondsText, seconds, kLongestProbeSeconds) || seconds == 0) {
      return usageError("--probe-seconds needs a number of seconds from 1 to " + std::to_string(kLongestProbeSeconds));
    }
    if (!a.probe) return usageError("--probe-seconds needs --probe");
    probeMillis = static_cast<int>(seconds) * 1000;
  }
  if (!a.bootImages.empty()) {
    if (!netboot::directoryExists(a.bootImages)) return failure("no boot image directory " + a.bootImages);
    netboot::setBootImageDirectory(a.bootImages);
  }
  startSockets();
  auto started = std::chrono::steady_clock::now();
  std::vector<Finding> findings;
  doctor::ServedCandidate served;
  findings.push_back(doctor::checkInterface(netboot::platformInterfaceSource(), client, a.interfaceName, served));
  for (Finding& f : doctor::checkPorts(served.found ? served.address : 0)) findings.push_back(f);
  findings.push_back(doctor::checkPrivileges());
  for (Finding& f : doctor::checkFirewall(served.found ? served.name : a.interfaceName, findBlockingRules)) {
    findings.push_back(f);
  }
  for (Finding& f : doctor::checkBootImages()) findings.push_back(f);
  for (Finding& f : doctor::checkPackages(a.packages)) findings.push_back(f);
  for (Finding& f : doctor::checkLocalDiskRoad()) findings.push_back(f);
  if (a.probe) {
    if (!served.found) {
      findings.push_back(
          {Level::Warn, "probe", "not sent: no interface for the client address", "fix the interface first"});
    } else {
      std::vector<doctor::ProbeAnswer> answers;
      std::string why;
      // A terminal shows where the wait is (it is long enough to wonder).
      bool live = !a.json && install::terminalShowsLiveProgress();
      doctor::ProbeProgressShown progress;
      std::string shown;
      if (live) {
        progress = [&shown](const doctor::ProbeProgress& p) {
          std::string line = doctor::probeProgressLine(p);
          if (line != shown) std::cout << "\r\x1b[K" << line << std::flush;
          shown = line;
        };
      }
      bool sent =
          doctor::probeBootServers(served.name, served.address, served.mac, probeMillis, answers, why, progress);
      if (live && !shown.empty()) std::cout << "\r\x1b[K" << std::flush;
      if (!sent) {
        findings.push_back({Level::Warn, "probe", "not sent (" + why + ")", "run doctor --probe as root"});
      } else {
        // Our own server, if one runs here, is not "another" one.
        std::vector<doctor::ProbeAnswer> others;
        for (const doctor::ProbeAnswer& answer : answers) {
          if (answer.server != served.address) others.push_back(answer);
        }
        for (Finding& f : doctor::probeFindings(others, probeMillis)) findings.push_back(f);
      }
    }
  }
  if (a.json) {
    nlohmann::json array = nlohmann::json::array();
    for (const Finding& f : findings) array.push_back(findingJson(f));
    std::cout << web::jsonText(array, web::JsonCharacters::AsciiEscapes) << '\n';
  } else {
    for (const Finding& f : findings) std::cout << doctor::findingLine(f) << '\n';
  }
  std::cout.flush();
  auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
  app::logLine() << "doctor: " << findings.size() << " findings in " << millis << " ms";
  return doctor::anyFailed(findings) ? kExitFailed : kExitOk;
}

CommandRun defineDoctor(CLI::App& app) {
  auto a = std::make_shared<DoctorArguments>();
  addValue(app, "--client-address", a->clientText, "A.B.C.D",
           "The client address serve and netboot are given: its interface, ports and firewall are checked "
           "(default: none; only the addresses that exist are listed).");
  addValue(app, "--interface", a->interfaceName, "NAME",
           "Check only this network interface, as serve --interface NAME serves it (default: the first that "
           "reaches the client address).");
  addValue(app, "--packages", a->packages, "DIR", "The package folder to check (default: the current folder).");
  addValue(app, "--boot-images", a->bootImages, "DIR",
           "Check the boot image records of this folder (default: the per-user folder, then the system folder).");
  addSwitch(app, "--probe", a->probe,
            "Also look for other BOOTP/DHCP servers as a DHCP client would: broadcast a DHCPDISCOVER on the "
            "interface, again after 4 s, and list every server that answers within 8 s (needs root).");
  addValue(app, "--probe-seconds", a->probeSecondsText, "N",
           "How long --probe listens, 1 to " + std::to_string(kLongestProbeSeconds) +
               " s; a DHCPDISCOVER goes out at 0 s, 4 s, then 12, 28, 60 s... while 4 s of listening "
               "remain after it (default: 8).");
  addSwitch(app, "--json", a->json, "Print one JSON array of {level, check, found, fix} instead of lines.");
  return [a] { return runDoctor(*a); };
}

const CliCommandRegistrar doctorCommand({"doctor", "Find and name what keeps routers from booting or installing here.",
                                         &defineDoctor});

}  // namespace
}  // namespace tarnlift::cli
