#include "netboot/resource_lookup.h"

#include "app/failure.h"

namespace tarnlift::netboot {

bool lookUpResourceRecord(const ResourceLookup& lookup, int number, const uint8_t*& record, size_t& storedSize) {
  void* found = lookup.find(number);
  if (found == nullptr) return false;
  void* loaded = lookup.load(found);
  if (loaded == nullptr) app::fatalFailure("LoadResource");
  const void* locked = lookup.lock(loaded);
  if (locked == nullptr) app::fatalFailure("LockResource");
  record = static_cast<const uint8_t*>(locked);
  storedSize = lookup.size(found);
  return true;
}

}  // namespace tarnlift::netboot
