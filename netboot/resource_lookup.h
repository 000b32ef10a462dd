// Reading a boot image record from the program's own resources takes three
// system steps: find it, load it, lock it. A record that is not there is the
// caller's to report; a found record that cannot be loaded or locked is a
// broken program, fatal with the step's own name. The steps are callables so
// that tests can make each of them fail.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

namespace tarnlift::netboot {

struct ResourceLookup {
  std::function<void*(int number)> find;            // null: no such record
  std::function<void*(void* found)> load;           // null: fatal "LoadResource"
  std::function<const void*(void* loaded)> lock;    // null: fatal "LockResource"
  std::function<size_t(void* found)> size;
};

// False when find gave nothing; the record and its stored size otherwise.
bool lookUpResourceRecord(const ResourceLookup& lookup, int number, const uint8_t*& record, size_t& storedSize);

}  // namespace tarnlift::netboot
