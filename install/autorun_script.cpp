#include "install/autorun_script.h"

#include <cstdio>

namespace tarnlift::install {

std::string generatedScriptText(const RouterRecord& request) {
  std::string text;
  if (request.address != 0 && request.netmaskBits != 0) {
    char buffer[512];
    std::snprintf(buffer, sizeof buffer,
                  "\n:local eth [/interface ethernet get [/interface ethernet find mac-address=\"%s\"] name]\n"
                  "/interface enable $eth\n/ip address add address=%s/%d interface=$eth\n",
                  macText(request.mac).c_str(), dottedAddress(request.address).c_str(),
                  static_cast<int>(request.netmaskBits));
    text += buffer;
    if (request.gateway != 0) text += "/ip route add gateway=" + dottedAddress(request.gateway) + "\n";
  }
  if (request.baudRate != 0) text += "/port set [/port find] baud-rate=" + std::to_string(request.baudRate) + "\n";
  return text;
}

std::string makeAutorunScript(const RouterRecord& request, std::string& failure) {
  failure.clear();
  if (request.defaultConfig) return {};
  std::string generated = generatedScriptText(request);

  std::string unique = makeUniqueTempFile("scr");
  std::string path = unique + ".scr";
  std::FILE* out = unique.empty() ? nullptr : std::fopen(path.c_str(), "w+b");
  if (out == nullptr) {
    failure = "Could not open temporary file";
    return {};
  }
  if (!request.keepConfig) {
    if (request.scriptEnabled) {
      std::FILE* in = std::fopen(request.scriptPath.c_str(), "rb");
      if (in == nullptr) {
        failure = "Could not open script file";
      } else {
        char piece[4096];
        while (failure.empty()) {
          size_t count = std::fread(piece, 1, sizeof piece, in);
          if (count == 0) {
            if (std::ferror(in)) failure = "Could not read script";
            break;
          }
          if (std::fwrite(piece, 1, count, out) != count) failure = "Could not write file";
        }
        std::fclose(in);
      }
    }
    if (failure.empty() && !generated.empty() &&
        std::fwrite(generated.data(), 1, generated.size(), out) != generated.size()) {
      failure = "Could not write script";
    }
  }
  if (std::fclose(out) != 0 && failure.empty()) failure = "Could not write script";
  if (!failure.empty()) {
    std::remove(path.c_str());
    return {};
  }
  return path;
}

}  // namespace tarnlift::install
