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

#include "cli/cli_options.h"
#include "cli/command.h"
#include "cli/json_output.h"
#include "app/log.h"
#include "cli/privileges.h"
#include "doctor/checks.h"
#include "cli/firewall_rules.h"
#include "doctor/probe.h"
#include "doctor/system.h"
#include "install/headless.h"
#include "netboot/boot_images.h"
#include "install/install_command.h"
#include "netboot/interfaces.h"

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

Finding checkPrivileges() {
  std::string missing = missingServerPrivileges(true);
  if (missing.empty()) return {Level::Ok, "privileges", "may bind UDP ports 67, 69 and 5000", ""};
  return {Level::Fail, "privileges", missing, "run as root, or grant the capability named above"};
}

std::vector<Finding> checkFirewall(const std::string& interfaceName) {
  std::string rules;
  std::string why;
  if (!doctor::readFirewallRules(rules, why)) {
    doctor::FirewallProfiles profiles;
    std::string profilesWhy;
    if (!doctor::readFirewallProfiles(profiles, profilesWhy)) {
      // Say why the platform's own kind of firewall could not be read.
      std::string shown = profilesWhy.find("Linux") != std::string::npos ? why : profilesWhy;
      return {{Level::Warn, "firewall", "not checked (" + shown + ")", "make sure UDP 67, 69 and 5000 may come in"}};
    }
    if (profiles.onProfiles.empty()) return {{Level::Ok, "firewall", "the Windows firewall is off", ""}};
    if (profiles.programAllowed) {
      return {{Level::Ok, "firewall",
               "the Windows firewall is on (" + profiles.onProfiles + ") and allows " + profiles.program + " in", ""}};
    }
    return {{Level::Warn, "firewall",
             "the Windows firewall is on (" + profiles.onProfiles + ") and no enabled inbound rule allows " +
                 profiles.program,
             "allow the program in (Windows asks the first time it listens; or: netsh advfirewall firewall add rule "
             "name=Tarnlift dir=in action=allow program=\"" + profiles.program + "\")"}};
  }
  std::vector<FirewallBlock> blocks;
  if (!findBlockingRules(rules, interfaceName, {67, 69, 5000}, blocks, why)) {
    return {{Level::Warn, "firewall", "not checked (" + why + ")", "make sure UDP 67, 69 and 5000 may come in"}};
  }
  if (blocks.empty()) return {{Level::Ok, "firewall", "no nftables rule drops UDP 67, 69 or 5000 coming in", ""}};
  std::vector<Finding> findings;
  for (const FirewallBlock& b : blocks) {
    findings.push_back({Level::Warn, "firewall", b.description,
                        "allow UDP " + b.portsText + " in on " +
                            (interfaceName.empty() ? std::string("the routers' interface") : interfaceName) +
                            " (nft insert rule " + b.where + " udp dport { 67, 69, 5000 } accept), or remove the rule"});
  }
  return findings;
}

nlohmann::json findingJson(const Finding& f) {
  return {{"level", doctor::levelText(f.level)}, {"check", f.check}, {"found", f.found}, {"fix", f.fix}};
}

int runDoctor(const DoctorArguments& a) {
  uint32_t client = 0;
  if (!a.clientText.empty()) {
    client = addressFromText(a.clientText);
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
  findings.push_back(checkPrivileges());
  for (Finding& f : checkFirewall(served.found ? served.name : a.interfaceName)) findings.push_back(f);
  for (Finding& f : doctor::checkBootImages()) findings.push_back(f);
  for (Finding& f : doctor::checkPackages(a.packages)) findings.push_back(f);
  for (Finding& f : doctor::checkLocalDiskRoad()) findings.push_back(f);
  if (a.probe) {
    if (!served.found) {
      findings.push_back({Level::Warn, "probe", "not sent: no interface for the client address", "fix the interface first"});
    } else {
      std::vector<doctor::ProbeAnswer> answers;
      std::string why;
      // A terminal shows where the wait is (it is long enough to wonder).
      bool live = !a.json && terminalShowsLiveProgress();
      doctor::ProbeProgressShown progress;
      std::string shown;
      if (live) {
        progress = [&shown](const doctor::ProbeProgress& p) {
          std::string line = doctor::probeProgressLine(p);
          if (line != shown) std::cout << "\r\x1b[K" << line << std::flush;
          shown = line;
        };
      }
      bool sent = doctor::probeBootServers(served.name, served.address, served.mac, probeMillis, answers, why, progress);
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
    std::cout << jsonText(array) << '\n';
  } else {
    for (const Finding& f : findings) std::cout << doctor::findingLine(f) << '\n';
  }
  std::cout.flush();
  auto millis =
      std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started).count();
  logLine() << "doctor: " << findings.size() << " findings in " << millis << " ms";
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
  addValue(app, "--packages", a->packages, "DIR",
           "The package folder to check (default: the current folder).");
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
