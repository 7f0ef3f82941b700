// Error-checking mutex: locking it twice from one thread ends the process
// instead of deadlocking, so a recursive log call is caught at once.
#ifndef ZARN_SUPPORT_UTILITY_MUTEX_HPP
#define ZARN_SUPPORT_UTILITY_MUTEX_HPP

#include "zarn/support/export.hpp"

namespace zarn {
namespace support {
namespace utility {

class ZARN_EXPORT mutex {
 public:
  mutex();
  ~mutex();
  mutex(mutex const&) = delete;
  mutex& operator=(mutex const&) = delete;

  void lock();
  bool try_lock();
  void unlock();

 private:
  struct Block;
  Block* block_;
};

}  // namespace utility
}  // namespace support
}  // namespace zarn

#endif
