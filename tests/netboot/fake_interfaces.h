// An adapter list that tests write by hand.
#pragma once

#include <string>
#include <vector>

#include "netboot/interfaces.h"

namespace tarnlift::netboot::testing {

class FakeInterfaceSource : public InterfaceSource {
 public:
  std::vector<AdapterInfo> adapters;
  std::vector<AdapterPrefixes> prefixes;
  std::vector<MacAddress> macs;
  bool listFails = false;
  // Addresses whose bind test fails this many more times.
  std::vector<std::pair<uint32_t, int>> bindFailures;
  int bindTests = 0;
  int walks = 0;

  bool listAdapters(std::vector<AdapterInfo>& out) override {
    if (listFails) return false;
    out = adapters;
    return true;
  }
  void afterAdapterWalk() override { ++walks; }
  bool listPrefixes(std::vector<AdapterPrefixes>& out) override {
    if (listFails) return false;
    out = prefixes;
    return true;
  }
  bool bindTest(uint32_t address) override {
    ++bindTests;
    for (auto& [failing, count] : bindFailures) {
      if (failing == address && count > 0) {
        --count;
        return false;
      }
    }
    return true;
  }
  std::vector<MacAddress> adapterMacs() override { return macs; }

  AdapterInfo& addAdapter(const std::string& description, const std::string& address, const std::string& mask) {
    AdapterInfo& adapter = adapters.emplace_back();
    adapter.name = description;
    adapter.description = description;
    adapter.addresses.push_back({address, mask});
    return adapter;
  }
};

}  // namespace tarnlift::netboot::testing
