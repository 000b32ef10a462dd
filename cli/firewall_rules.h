// Reading nftables' JSON ruleset (`nft -j list ruleset`) for rules that
// would drop UDP datagrams coming in to the server's ports: the reader the
// front end gives the doctor's firewall check (doctor::checkFirewall).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "doctor/checks.h"

namespace tarnlift::cli {

using doctor::FirewallBlock;

// The rules and chain policies of input (and prerouting) chains that drop
// or reject incoming UDP to any of `ports` on `interfaceName` (a rule tied
// to another interface does not count; one tied to none does). A rule with
// conditions this reading does not know is reported too, saying so. False
// with `why` when the text is not a ruleset.
bool findBlockingRules(const std::string& rulesetJson, const std::string& interfaceName,
                       const std::vector<uint16_t>& ports, std::vector<FirewallBlock>& blocks, std::string& why);

}  // namespace tarnlift::cli
