#include <winsock2.h>
#include <windows.h>
#include <iphlpapi.h>
#include <netfw.h>
#include <oleauto.h>

#include <cwctype>
#include <vector>

#include "doctor/system.h"

namespace tarnlift::doctor {
namespace {

// The firewall policy object's class ({E2B3C97F-6AE1-41AC-817A-F6F92166D7DD}).
const CLSID kNetFwPolicy2 = {0xE2B3C97F, 0x6AE1, 0x41AC, {0x81, 0x7A, 0xF6, 0xF9, 0x21, 0x66, 0xD7, 0xDD}};

std::wstring lower(std::wstring text) {
  for (wchar_t& c : text) c = static_cast<wchar_t>(std::towlower(c));
  return text;
}

std::string narrow(const std::wstring& text) {
  int size = WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, nullptr, 0, nullptr, nullptr);
  if (size <= 1) return "";
  std::string result(static_cast<size_t>(size - 1), '\0');
  WideCharToMultiByte(CP_ACP, 0, text.c_str(), -1, result.data(), size, nullptr, nullptr);
  return result;
}

std::string hresultText(const char* what, HRESULT hr) {
  char code[16];
  wsprintfA(code, "0x%08lX", static_cast<unsigned long>(hr));
  return std::string(what) + " (" + code + ")";
}

// An enabled inbound allow rule for `program` (compared without case).
bool allowsProgram(INetFwPolicy2* policy, const std::wstring& program) {
  INetFwRules* rules = nullptr;
  if (FAILED(policy->get_Rules(&rules)) || rules == nullptr) return false;
  bool allowed = false;
  IUnknown* enumerator = nullptr;
  if (SUCCEEDED(rules->get__NewEnum(&enumerator)) && enumerator != nullptr) {
    IEnumVARIANT* items = nullptr;
    if (SUCCEEDED(enumerator->QueryInterface(IID_IEnumVARIANT, reinterpret_cast<void**>(&items))) && items) {
      VARIANT item;
      VariantInit(&item);
      ULONG fetched = 0;
      while (!allowed && items->Next(1, &item, &fetched) == S_OK && fetched == 1) {
        INetFwRule* rule = nullptr;
        if (item.vt == VT_DISPATCH && item.pdispVal != nullptr &&
            SUCCEEDED(item.pdispVal->QueryInterface(__uuidof(INetFwRule), reinterpret_cast<void**>(&rule)))) {
          BSTR application = nullptr;
          VARIANT_BOOL enabled = VARIANT_FALSE;
          NET_FW_RULE_DIRECTION direction = NET_FW_RULE_DIR_OUT;
          NET_FW_ACTION action = NET_FW_ACTION_BLOCK;
          if (SUCCEEDED(rule->get_ApplicationName(&application)) && application != nullptr &&
              SUCCEEDED(rule->get_Enabled(&enabled)) && SUCCEEDED(rule->get_Direction(&direction)) &&
              SUCCEEDED(rule->get_Action(&action))) {
            allowed = enabled == VARIANT_TRUE && direction == NET_FW_RULE_DIR_IN && action == NET_FW_ACTION_ALLOW &&
                      lower(application) == lower(program);
          }
          if (application != nullptr) SysFreeString(application);
          rule->Release();
        }
        VariantClear(&item);
      }
      items->Release();
    }
    enumerator->Release();
  }
  rules->Release();
  return allowed;
}

}  // namespace

LinkState linkState(const std::string& interfaceName) {
  LinkState state;
  ULONG size = 16 * 1024;
  std::vector<unsigned char> buffer;
  ULONG result = ERROR_BUFFER_OVERFLOW;
  for (int attempt = 0; attempt < 4 && result == ERROR_BUFFER_OVERFLOW; ++attempt) {
    buffer.resize(size);
    result = GetAdaptersAddresses(AF_INET, GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER,
                                  nullptr, reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()), &size);
  }
  if (result != NO_ERROR) {
    state.why = "the adapter list cannot be read (error " + std::to_string(result) + ")";
    return state;
  }
  for (auto* a = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data()); a != nullptr; a = a->Next) {
    if (a->AdapterName == nullptr || interfaceName != a->AdapterName) continue;
    state.known = true;
    // Down: switched off; lower layer down or not present: on, but no cable
    // or radio link under it.
    state.up = a->OperStatus != IfOperStatusDown;
    state.carrier = a->OperStatus == IfOperStatusUp;
    if (a->OperStatus == IfOperStatusUnknown || a->OperStatus == IfOperStatusTesting) {
      state.known = false;
      state.why = "the adapter does not say";
    }
    return state;
  }
  state.why = "no adapter named " + interfaceName;
  return state;
}

std::string findProgram(const std::string& name) {
  char found[MAX_PATH] = {};
  if (SearchPathA(nullptr, name.c_str(), nullptr, MAX_PATH, found, nullptr) == 0) return "";
  return found;
}

std::vector<NeededProgram> diskRoadPrograms() {
  return {{"format.com", "it comes with Windows (System32); disk installations need a real Windows"}};
}

bool readFirewallRules(std::string&, std::string& why) {
  why = "Windows has no nftables";
  return false;
}

bool readFirewallProfiles(FirewallProfiles& profiles, std::string& why) {
  HRESULT init = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  bool uninitialize = SUCCEEDED(init);
  INetFwPolicy2* policy = nullptr;
  HRESULT hr = CoCreateInstance(kNetFwPolicy2, nullptr, CLSCTX_INPROC_SERVER, __uuidof(INetFwPolicy2),
                                reinterpret_cast<void**>(&policy));
  bool ok = false;
  if (FAILED(hr) || policy == nullptr) {
    why = hresultText("the firewall's settings cannot be opened", hr);
  } else {
    long types = 0;
    hr = policy->get_CurrentProfileTypes(&types);
    if (FAILED(hr)) {
      why = hresultText("the firewall's current profiles cannot be read", hr);
    } else {
      ok = true;
      const struct {
        NET_FW_PROFILE_TYPE2 type;
        const char* name;
      } kinds[] = {{NET_FW_PROFILE2_DOMAIN, "domain"}, {NET_FW_PROFILE2_PRIVATE, "private"}, {NET_FW_PROFILE2_PUBLIC, "public"}};
      for (const auto& kind : kinds) {
        if ((types & kind.type) == 0) continue;
        VARIANT_BOOL on = VARIANT_FALSE;
        if (FAILED(policy->get_FirewallEnabled(kind.type, &on))) {
          ok = false;
          why = "the firewall's state cannot be read";
          break;
        }
        if (on == VARIANT_TRUE) profiles.onProfiles += std::string(profiles.onProfiles.empty() ? "" : ", ") + kind.name;
      }
      wchar_t path[MAX_PATH] = {};
      GetModuleFileNameW(nullptr, path, MAX_PATH);
      profiles.program = narrow(path);
      if (ok && !profiles.onProfiles.empty()) profiles.programAllowed = allowsProgram(policy, path);
    }
    policy->Release();
  }
  if (uninitialize) CoUninitialize();
  return ok;
}

}  // namespace tarnlift::doctor
