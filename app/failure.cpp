#include "app/failure.h"

#include <atomic>

#include "app/log.h"

namespace tarnlift::app {
namespace {

std::atomic<FatalPresenter> gPresenter{nullptr};
std::atomic<FailureExplainer> gExplainer{nullptr};

}  // namespace

void setFatalPresenter(FatalPresenter presenter) { gPresenter = presenter; }
void setFailureExplainer(FailureExplainer explainer) { gExplainer = explainer; }

void reportFailure(std::string& message, uint32_t code, bool fatal) {
  if (code == 0) code = lastSystemError();
  message += ": ";
  message += systemErrorText(code);
  message += " (";
  message += std::to_string(code);
  message += ")";
  logLine(LogPriority::Error) << message;
  if (!fatal) return;
  std::string shown = message;
  if (FailureExplainer explainer = gExplainer.load()) {
    std::string cause = explainer(message);
    if (!cause.empty()) shown += "\n" + cause;
  }
  FatalPresenter presenter = gPresenter.load();
  if (presenter != nullptr) {
    presenter(shown);
  } else {
    showFatalBox(shown);
  }
  exitProcessNow(1);
}

void reportSocketFailure(std::string& message, bool fatal) { reportFailure(message, lastSocketError(), fatal); }

void fatalFailure(std::string message, uint32_t code) {
  reportFailure(message, code, true);
  exitProcessNow(1);  // not reached: reportFailure ends the process
}

}  // namespace tarnlift::app
