#include "doctor/checks.h"

#include <algorithm>
#include <cstdio>
#include <map>

#include "doctor/privileges.h"
#include "doctor/system.h"
#include "doctor/udp_ports.h"
#include "netboot/boot_images.h"
#include "packages/package_catalogue.h"
#include "packages/package_file.h"
#include "packages/package_folder.h"
#include "packages/version.h"

namespace tarnlift::doctor {
namespace {

using net::formatIpv4;

int maskBits(uint32_t netmask) {
  uint32_t host = (netmask >> 24) | ((netmask >> 8) & 0xFF00) | ((netmask << 8) & 0xFF0000) | (netmask << 24);
  int bits = 0;
  while (host & 0x80000000u) {
    ++bits;
    host <<= 1;
  }
  return bits;
}

bool isLoopback(uint32_t address) { return (address & 0xFF) == 127; }

// Milliseconds as seconds with `decimals` places: "8", "3.0".
std::string secondsText(int millis, int decimals = 0) {
  char text[32];
  std::snprintf(text, sizeof text, "%.*f", decimals, millis / 1000.0);
  return text;
}

std::string withBits(uint32_t address, uint32_t netmask) {
  return formatIpv4(address) + "/" + std::to_string(maskBits(netmask));
}

// The local disk road's records and what they are.
constexpr int kDiskRecords[] = {120, 124, 132, 134};

bool isDiskRecord(int number) {
  return std::find(std::begin(kDiskRecords), std::end(kDiskRecords), number) != std::end(kDiskRecords);
}

std::string firstDirectory() {
  for (const netboot::BootImageSource& s : netboot::bootImageSources()) {
    if (s.isDirectory) return s.place;
  }
  return "a folder given with --boot-images";
}

// Linux names its interfaces (eth1); Windows by a GUID, so its description
// is what a person recognises.
std::string shownName(const netboot::AdapterInfo& adapter) {
  if (adapter.name.empty() || adapter.name[0] == '{') return adapter.description;
  return adapter.name;
}

}  // namespace

ServedCandidate findServedCandidate(netboot::InterfaceSource& source, uint32_t clientAddress,
                                    const std::string& interfaceName) {
  ServedCandidate candidate;
  std::vector<netboot::AdapterInfo> adapters;
  if (!source.listAdapters(adapters)) return candidate;
  for (const netboot::AdapterInfo& adapter : adapters) {
    if (!interfaceName.empty() && adapter.name != interfaceName) continue;
    for (const netboot::AdapterAddressText& a : adapter.addresses) {
      uint32_t address = net::parseIpv4OrZero(a.address);
      uint32_t mask = net::parseIpv4OrZero(a.mask);
      if (address == 0 || mask == 0 || isLoopback(address)) continue;
      if ((address & mask) != (clientAddress & mask)) continue;
      candidate = {true, adapter.name, shownName(adapter), address, mask, adapter.mac};
      return candidate;
    }
  }
  return candidate;
}

std::string existingAddressesText(netboot::InterfaceSource& source) {
  std::vector<netboot::AdapterInfo> adapters;
  if (!source.listAdapters(adapters)) return "none could be listed";
  std::string text;
  for (const netboot::AdapterInfo& adapter : adapters) {
    for (const netboot::AdapterAddressText& a : adapter.addresses) {
      uint32_t address = net::parseIpv4OrZero(a.address);
      uint32_t mask = net::parseIpv4OrZero(a.mask);
      if (address == 0 || isLoopback(address)) continue;
      if (!text.empty()) text += ", ";
      text += shownName(adapter) + " " + withBits(address, mask);
    }
  }
  return text.empty() ? std::string("none") : text;
}

Finding checkInterface(netboot::InterfaceSource& source, uint32_t clientAddress, const std::string& interfaceName,
                       ServedCandidate& candidate) {
  Finding f;
  f.check = "interface";
  if (clientAddress == 0) {
    f.level = Level::Warn;
    f.found = "no client address given; the addresses that exist: " + existingAddressesText(source);
    f.fix = "run doctor with --client-address A.B.C.D, the address serve and netboot are given";
    return f;
  }
  candidate = findServedCandidate(source, clientAddress, interfaceName);
  if (!candidate.found) {
    f.level = Level::Fail;
    f.found = std::string("no ") + (interfaceName.empty() ? "interface" : "address of " + interfaceName) +
              " is in the subnet of " + formatIpv4(clientAddress) +
              "; the addresses that exist: " + existingAddressesText(source);
    f.fix = "give the interface that reaches the routers an address of that subnet (Linux: ip address add "
            "A.B.C.D/24 dev NAME), or use a client address in the subnet of one of the addresses above";
    return f;
  }
  f.found = candidate.shown + " " + withBits(candidate.address, candidate.netmask) + " (MAC " +
            net::formatMac(candidate.mac) + ") for client " + formatIpv4(clientAddress);
  LinkState link = linkState(candidate.name);
  if (!link.known) {
    f.found += ", link not checked (" + link.why + ")";
  } else if (!link.up) {
    f.level = Level::Fail;
    f.found += ", link down";
    f.fix = "bring it up (Linux: ip link set " + candidate.name + " up)";
  } else if (!link.carrier) {
    f.level = Level::Fail;
    f.found += ", link up, no carrier";
    f.fix = "plug in the cable to the routers' segment, or switch on the switch";
  } else {
    f.found += ", link up, carrier on";
  }
  return f;
}

Finding checkPort(uint16_t port, uint32_t servedAddress) {
  Finding f;
  f.check = "port " + std::to_string(port) + "/udp";
  std::vector<UdpBinding> bindings;
  std::string why;
  if (!udpBindings(port, bindings, why)) {
    f.level = Level::Warn;
    f.found = "not checked (" + why + ")";
    f.fix = "run doctor where the UDP table can be read";
    return f;
  }
  std::vector<UdpBinding> inTheWay = bindingsInTheWay(bindings, servedAddress);
  if (inTheWay.empty()) {
    f.found = "free" + (servedAddress != 0 ? " on " + formatIpv4(servedAddress) : std::string());
    return f;
  }
  f.level = Level::Fail;
  std::string found;
  for (const UdpBinding& b : inTheWay) {
    if (!found.empty()) found += "; ";
    found += "held by " + holdersText(b) + " on " + formatIpv4(b.address);
  }
  f.found = found;
  f.fix = stopAdvice(inTheWay.front(), port);
  return f;
}

std::vector<Finding> checkPorts(uint32_t servedAddress) {
  std::vector<Finding> findings;
  for (uint16_t port : {uint16_t{67}, uint16_t{69}, uint16_t{5000}, netboot::kTestPort}) {
    findings.push_back(checkPort(port, servedAddress));
  }
  return findings;
}

std::vector<Finding> checkBootImages() {
  std::vector<Finding> findings;
  findings.push_back({Level::Ok, "boot images", "searched in this order: " + netboot::bootImageSearchText(), ""});
  std::map<std::string, std::string> byPlace;  // place -> "125, 143, ..."
  std::string missing;
  // 126 and 142 are asked for only by a real record 125 (a second-stage
  // loader); the built-in placeholder asks for nothing.
  netboot::BootImageLocation bios;
  bool realBios = netboot::locateBootImage(netboot::kImageBiosPxe, bios) && bios.place.find("built") == std::string::npos;
  for (const netboot::BootImageUse& use : netboot::bootImageUses()) {
    if (isDiskRecord(use.number)) continue;
    bool secondStage = use.number == netboot::kImagePxelinuxConfig || use.number == netboot::kImageLdlinux;
    netboot::BootImageLocation location;
    if (!netboot::locateBootImage(use.number, location)) {
      if (secondStage && !realBios) continue;
      if (!missing.empty()) missing += ", ";
      missing += std::to_string(use.number) + " (" + use.use + ")";
      continue;
    }
    std::string& list = byPlace[location.place];
    if (!list.empty()) list += ", ";
    list += std::to_string(use.number);
  }
  for (const auto& [place, numbers] : byPlace) {
    bool builtIn = place.find("built") != std::string::npos;
    bool several = numbers.find(',') != std::string::npos;
    std::string records = (several ? "records " : "record ") + numbers;
    Finding f{Level::Ok, "boot images", records + " from " + place, ""};
    if (builtIn) {
      f.level = Level::Warn;
      f.found = records + (several ? " are only built-in placeholders (" : " is only a built-in placeholder (") +
                place + "): such clients are told what is missing, they do not boot";
      f.fix = "put the real records as NUMBER.bin into " + firstDirectory();
    }
    findings.push_back(f);
  }
  if (!missing.empty()) {
    findings.push_back({Level::Fail, "boot images",
                        "no record " + missing + "; a client of that class that boots ends the server (FindResource)",
                        "put NUMBER.bin for each into " + firstDirectory() + ", or give --boot-images DIR"});
  }
  return findings;
}

std::vector<Finding> checkPackages(const std::string& folder) {
  std::vector<Finding> findings;
  std::vector<std::string> names = packages::listFolderFiles(folder, ".npk");
  std::vector<std::string> dpk = packages::listFolderFiles(folder, ".dpk");
  names.insert(names.end(), dpk.begin(), dpk.end());
  std::sort(names.begin(), names.end());
  if (names.empty()) {
    findings.push_back({Level::Warn, "packages", "no package files (*.npk, *.dpk) in " + folder,
                        "put the routers' package files there, or give --packages DIR"});
    return findings;
  }
  std::map<std::string, int> architectures;
  int readable = 0;
  for (const std::string& name : names) {
    std::unique_ptr<packages::PackageFileSource> file = packages::openPackageFile(packages::joinFolderPath(folder, name));
    if (!file) {
      findings.push_back({Level::Warn, "packages", name + " skipped: unreadable", "check its permissions"});
      continue;
    }
    packages::PackageFileContents contents;
    if (!packages::readPackageContents(*file, name, packages::kArchitectureAny, contents)) {
      findings.push_back({Level::Warn, "packages", name + " skipped: not a package (cut short or damaged)",
                          "copy the file again from its source"});
      continue;
    }
    if (contents.record.name.empty()) {
      findings.push_back({Level::Warn, "packages", name + " skipped: not a package (unknown header)",
                          "remove it from the folder"});
      continue;
    }
    ++readable;
    std::string arch = packages::shownArchitecture(contents.record.architecture);
    ++architectures[arch.empty() ? std::string("any") : arch];
  }
  std::string perArch;
  for (const auto& [arch, count] : architectures) {
    if (!perArch.empty()) perArch += ", ";
    perArch += arch + " " + std::to_string(count);
  }
  findings.push_back({Level::Ok, "packages",
                      std::to_string(readable) + " package(s) in " + folder +
                          (perArch.empty() ? std::string() : " (" + perArch + ")") +
                          "; a router is offered those of its own architecture",
                      ""});
  packages::PackageCatalogue catalogue;
  catalogue.setFolder(folder, packages::kArchitectureAny);
  for (const packages::PackageRecord& r : catalogue.records()) {
    if (r.valid) continue;
    std::string needs;
    for (const packages::PackageDependency& d : r.dependencies) {
      bool present = false;
      for (const packages::PackageRecord& other : catalogue.records()) {
        bool named = other.name == d.name ||
                     std::find(other.providedNames.begin(), other.providedNames.end(), d.name) !=
                         other.providedNames.end();
        present = present || (named && d.accepts(other.version));
      }
      if (present) continue;
      if (!needs.empty()) needs += ", ";
      needs += d.name + " " + packages::formatVersion(d.minVersion);
    }
    findings.push_back({Level::Warn, "packages",
                        r.fileName + " cannot be installed: it needs " +
                            (needs.empty() ? std::string("a package that another one excludes") : needs),
                        "add the missing package file to the folder"});
  }
  return findings;
}

std::vector<Finding> checkLocalDiskRoad() {
  std::vector<Finding> findings;
  for (const NeededProgram& p : diskRoadPrograms()) {
    std::string path = findProgram(p.name);
    if (path.empty()) {
      findings.push_back({Level::Warn, "local disk", std::string(p.name) + " not found", p.fix});
    } else {
      findings.push_back({Level::Ok, "local disk", std::string(p.name) + " at " + path, ""});
    }
  }
  std::string missing;
  std::string found;
  for (int number : kDiskRecords) {
    netboot::BootImageLocation location;
    std::string& list = netboot::locateBootImage(number, location) ? found : missing;
    if (!list.empty()) list += ", ";
    list += std::to_string(number);
  }
  if (missing.empty()) {
    findings.push_back({Level::Ok, "local disk", "records " + found + " found", ""});
  } else {
    findings.push_back({Level::Warn, "local disk", "records " + missing + " missing (a disk installation refuses to start)",
                        "put them as NUMBER.bin into " + firstDirectory() + ", or give --boot-images DIR"});
  }
  return findings;
}

std::vector<Finding> probeFindings(const std::vector<ProbeAnswer>& answers, int totalMillis) {
  std::vector<Finding> findings;
  if (answers.empty()) {
    std::string sent;
    for (int at : discoverTimes(totalMillis)) sent += (sent.empty() ? "" : ", ") + std::to_string(at / 1000);
    findings.push_back({Level::Ok, "probe",
                        "no other BOOTP/DHCP server answered within " + secondsText(totalMillis) +
                            " s (DHCPDISCOVER sent at " + sent + " s)",
                        ""});
    return findings;
  }
  for (const ProbeAnswer& a : answers) {
    std::string found = "another boot server on this segment: " + formatIpv4(a.server);
    found += a.macKnown ? " (MAC " + net::formatMac(a.serverMac) + ")" : std::string(" (MAC not known)");
    found += ", offered " + formatIpv4(a.offered);
    if (a.nextServer != 0) found += ", next server " + formatIpv4(a.nextServer);
    found += ", boot file '" + a.bootFile + "'";
    found += ", answered after " + secondsText(a.afterMillis, 1) + " s";
    findings.push_back({Level::Warn, "probe", found,
                        "routers may boot from it instead: stop it, or keep it off this segment or away from the "
                        "routers' addresses"});
  }
  return findings;
}

Finding checkPrivileges() {
  std::string missing = missingServerPrivileges(true);
  if (missing.empty()) return {Level::Ok, "privileges", "may bind UDP ports 67, 69 and 5000", ""};
  return {Level::Fail, "privileges", missing, "run as root, or grant the capability named above"};
}

std::vector<Finding> checkFirewall(const std::string& interfaceName, const BlockingRulesReader& findBlockingRules) {
  std::string rules;
  std::string why;
  if (!readFirewallRules(rules, why)) {
    FirewallProfiles profiles;
    std::string profilesWhy;
    if (!readFirewallProfiles(profiles, profilesWhy)) {
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

}  // namespace tarnlift::doctor
