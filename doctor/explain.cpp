#include "doctor/explain.h"

#include "app/failure.h"
#include "doctor/checks.h"
#include "netboot/interfaces.h"

namespace tarnlift::doctor {

std::string explainFailure(const std::string& fatalText) {
  uint16_t port = 0;
  if (fatalText.rfind("bind bootp failed", 0) == 0) port = 67;
  if (fatalText.rfind("bind tftp", 0) == 0) port = 69;
  if (port == 0) return "";
  Finding f = checkPort(port, netboot::serverAddress());
  if (f.level == Level::Ok) return "";
  return "doctor: " + findingLine(f);
}

std::string explainNoInterface(uint32_t clientAddress, const std::string& interfaceName) {
  ServedCandidate candidate;
  return "doctor: " + findingLine(checkInterface(netboot::platformInterfaceSource(), clientAddress, interfaceName,
                                                 candidate));
}

void explainFatalFailures() { app::setFailureExplainer(&explainFailure); }

}  // namespace tarnlift::doctor
