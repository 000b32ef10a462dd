// The network boot panel and the metrics text.
#include "web/web_desk.h"

#include <map>

#include "app/version.h"

namespace tarnlift::web {

using nlohmann::json;

json WebDesk::netboot() const {
  json images = json::array();
  for (const BootImageSeen& i : netboot_.images) images.push_back({{"number", i.number}, {"size", i.size}, {"where", i.where}});
  json clients = json::array();
  for (const NetbootClientSeen& c : netboot_.clients) {
    clients.push_back({{"mac", c.mac}, {"class", c.clientClass}, {"when", c.when}});
  }
  return {{"enabled", netboot_.enabled},
          {"clientAddress", netboot_.clientAddress},
          {"interface", {{"address", netboot_.interfaceAddress}, {"mac", netboot_.interfaceMac}}},
          {"bootImages", images},
          {"clients", clients}};
}

std::string WebDesk::metrics() {
  std::map<uint32_t, uint64_t> byStatus;
  for (uint32_t s = install::kStatusReady; s <= install::kStatusWaitingReboot; ++s) byStatus[s] = 0;
  for (const auto& [mac, row] : desk_.table().rows()) {
    if (row.record.status >= install::kStatusReady && row.record.status <= install::kStatusWaitingReboot)
      ++byStatus[row.record.status];
  }
  std::string out;
  out += "# HELP tarnlift_routers Rows of the router table by status.\n# TYPE tarnlift_routers gauge\n";
  for (const auto& [status, count] : byStatus) {
    out += "tarnlift_routers{status=\"" + std::string(install::statusRowText(status)) + "\"} " + std::to_string(count) +
           "\n";
  }
  out += "# HELP tarnlift_installs_total Installations finished, by result.\n# TYPE tarnlift_installs_total counter\n";
  out += "tarnlift_installs_total{result=\"done\"} " + std::to_string(installsDone_) + "\n";
  out += "tarnlift_installs_total{result=\"failed\"} " + std::to_string(installsFailed_) + "\n";
  out += "# HELP tarnlift_install_bytes_sent_total Package and script bytes sent to routers.\n";
  out += "# TYPE tarnlift_install_bytes_sent_total counter\n";
  out += "tarnlift_install_bytes_sent_total " + std::to_string(bytesSent_) + "\n";
  out += "# HELP tarnlift_bootp_replies_total BOOTP replies sent.\n# TYPE tarnlift_bootp_replies_total counter\n";
  out += "tarnlift_bootp_replies_total " + std::to_string(netboot_.bootpReplies) + "\n";
  out += "# HELP tarnlift_tftp_transfers_total TFTP transfers finished.\n# TYPE tarnlift_tftp_transfers_total counter\n";
  out += "tarnlift_tftp_transfers_total " + std::to_string(netboot_.tftpTransfers) + "\n";
  out += "# HELP tarnlift_tftp_bytes_sent_total TFTP data bytes sent.\n# TYPE tarnlift_tftp_bytes_sent_total counter\n";
  out += "tarnlift_tftp_bytes_sent_total " + std::to_string(netboot_.tftpBytesSent) + "\n";
  out += "# HELP process_start_time_seconds Start time of the process since the Unix epoch in seconds.\n";
  out += "# TYPE process_start_time_seconds gauge\n";
  out += "process_start_time_seconds " + std::to_string(startedAtSeconds_) + "\n";
  out += "# HELP tarnlift_info The program's version.\n# TYPE tarnlift_info gauge\n";
  out += "tarnlift_info{version=\"" + std::string(app::kVersionWords) + "\"} 1\n";
  return out;
}

}  // namespace tarnlift::web
