#include "cli/firewall_rules.h"

#include <algorithm>
#include <map>
#include <set>

#include <nlohmann/json.hpp>

namespace tarnlift::cli {
namespace {

using nlohmann::json;

struct Chain {
  bool incoming = false;
  std::string policy;
  std::set<uint16_t> accepted;  // by an earlier rule without unknown conditions
};

std::string chainKey(const json& o) {
  return o.value("family", "") + " " + o.value("table", "") + " " + o.value(o.contains("chain") ? "chain" : "name", "");
}

// The ports of `wanted` that a match's right side names.
std::set<uint16_t> portsNamed(const json& right, const std::set<uint16_t>& wanted) {
  std::set<uint16_t> named;
  auto add = [&](const json& item) {
    if (item.is_number_integer()) {
      int port = item.get<int>();
      if (port >= 0 && port <= 65535 && wanted.count(static_cast<uint16_t>(port))) named.insert(static_cast<uint16_t>(port));
    } else if (item.is_object() && item.contains("range") && item["range"].is_array() && item["range"].size() == 2 &&
               item["range"][0].is_number_integer() && item["range"][1].is_number_integer()) {
      int low = item["range"][0].get<int>();
      int high = item["range"][1].get<int>();
      for (uint16_t p : wanted) {
        if (p >= low && p <= high) named.insert(p);
      }
    }
  };
  if (right.is_object() && right.contains("set") && right["set"].is_array()) {
    for (const json& item : right["set"]) add(item);
  } else {
    add(right);
  }
  return named;
}

std::string portsText(const std::set<uint16_t>& ports) {
  std::string text;
  for (uint16_t p : ports) {
    if (!text.empty()) text += ", ";
    text += std::to_string(p);
  }
  return text;
}

}  // namespace

bool findBlockingRules(const std::string& rulesetJson, const std::string& interfaceName,
                       const std::vector<uint16_t>& ports, std::vector<FirewallBlock>& blocks, std::string& why) {
  blocks.clear();
  json document = json::parse(rulesetJson, nullptr, false);
  if (document.is_discarded() || !document.is_object() || !document.contains("nftables") ||
      !document["nftables"].is_array()) {
    why = "nft gave no ruleset";
    return false;
  }
  const std::set<uint16_t> wanted(ports.begin(), ports.end());
  std::map<std::string, Chain> chains;
  for (const json& item : document["nftables"]) {
    if (!item.is_object() || !item.contains("chain") || !item["chain"].is_object()) continue;
    const json& c = item["chain"];
    std::string hook = c.value("hook", "");
    std::string family = c.value("family", "");
    Chain chain;
    chain.incoming = (hook == "input" || hook == "prerouting") &&
                     (family == "inet" || family == "ip" || family == "netdev");
    chain.policy = c.value("policy", "");
    chains[chainKey(c)] = chain;
  }
  for (const json& item : document["nftables"]) {
    if (!item.is_object() || !item.contains("rule") || !item["rule"].is_object()) continue;
    const json& r = item["rule"];
    auto chainIt = chains.find(chainKey(r));
    if (chainIt == chains.end() || !chainIt->second.incoming) continue;
    Chain& chain = chainIt->second;
    if (!r.contains("expr") || !r["expr"].is_array()) continue;
    std::set<uint16_t> hit = wanted;
    bool applies = true;
    bool unknown = false;
    std::string verdict;
    std::string summary;
    for (const json& e : r["expr"]) {
      if (!e.is_object() || e.empty()) continue;
      const std::string kind = e.begin().key();
      if (kind == "drop" || kind == "reject" || kind == "accept") {
        verdict = kind;
        continue;
      }
      if (kind == "counter" || kind == "log" || kind == "limit" || kind == "comment") continue;
      if (kind != "match" || !e["match"].is_object()) {
        unknown = true;
        continue;
      }
      const json& m = e["match"];
      std::string op = m.value("op", "==");
      const json& left = m.contains("left") ? m["left"] : json();
      const json& right = m.contains("right") ? m["right"] : json();
      if (left.is_object() && left.contains("payload") && left["payload"].is_object()) {
        std::string protocol = left["payload"].value("protocol", "");
        std::string field = left["payload"].value("field", "");
        if (protocol == "udp" || protocol == "th") {
          if (field == "dport") {
            std::set<uint16_t> named = portsNamed(right, wanted);
            std::set<uint16_t> kept;
            for (uint16_t p : hit) {
              bool in = named.count(p) != 0;
              if ((op == "!=") ? !in : in) kept.insert(p);
            }
            hit = kept;
            summary += std::string(protocol == "th" ? "th" : "udp") + " dport " + (op == "!=" ? "!= " : "") +
                       right.dump() + " ";
          } else {
            unknown = true;
          }
        } else if (protocol == "ip" || protocol == "ip6") {
          unknown = true;
        } else {
          applies = false;  // tcp, icmp, ...: not our datagrams
        }
      } else if (left.is_object() && left.contains("meta") && left["meta"].is_object()) {
        std::string key = left["meta"].value("key", "");
        if (key == "l4proto") {
          bool udp = right.is_string() && right.get<std::string>() == "udp";
          if (right.is_object() && right.contains("set")) {
            udp = std::find(right["set"].begin(), right["set"].end(), json("udp")) != right["set"].end();
          }
          if ((op == "!=") ? udp : !udp) applies = false;
        } else if (key == "iifname" || key == "iif") {
          bool same = right.is_string() && right.get<std::string>() == interfaceName;
          if (!interfaceName.empty() && ((op == "!=") ? same : !same)) applies = false;
          summary += "iifname " + (op == "!=" ? std::string("!= ") : std::string()) + right.dump() + " ";
        } else {
          unknown = true;
        }
      } else {
        unknown = true;
      }
    }
    if (!applies || hit.empty()) continue;
    if (verdict == "accept") {
      if (!unknown) chain.accepted.insert(hit.begin(), hit.end());
      continue;
    }
    if (verdict != "drop" && verdict != "reject") continue;
    std::set<uint16_t> blocked;
    for (uint16_t p : hit) {
      if (!chain.accepted.count(p)) blocked.insert(p);
    }
    if (blocked.empty()) continue;
    FirewallBlock b;
    b.where = chainKey(r);
    b.portsText = portsText(blocked);
    std::string handle = r.contains("handle") ? r["handle"].dump() : std::string("?");
    b.description = "rule " + handle + " of " + b.where + " (" + summary + verdict + ") " + verdict +
                    "s incoming UDP " + b.portsText +
                    (unknown ? std::string(" when its other conditions hold") : std::string());
    blocks.push_back(b);
    // Later rules no longer see these datagrams.
    chain.accepted.insert(blocked.begin(), blocked.end());
  }
  for (auto& [key, chain] : chains) {
    if (!chain.incoming || chain.policy != "drop") continue;
    std::set<uint16_t> blocked;
    for (uint16_t p : wanted) {
      if (!chain.accepted.count(p)) blocked.insert(p);
    }
    bool alreadyNamed = false;
    for (const FirewallBlock& b : blocks) alreadyNamed = alreadyNamed || b.where == key;
    if (blocked.empty() || alreadyNamed) continue;
    blocks.push_back({"the policy of " + key + " drops incoming UDP " + portsText(blocked) +
                          " (no rule accepts it first)",
                      key, portsText(blocked)});
  }
  return true;
}

}  // namespace tarnlift::cli
