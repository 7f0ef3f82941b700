#include "zarn/support/utility/mutex.hpp"

#include <pthread.h>

#include <cerrno>

#include "zarn/support/log.hpp"

namespace zarn {
namespace support {
namespace utility {

struct mutex::Block {
  pthread_mutexattr_t attribute;
  pthread_mutex_t handle;
};

mutex::mutex() : block_(new Block) {
  pthread_mutexattr_init(&block_->attribute);
  pthread_mutexattr_settype(&block_->attribute, PTHREAD_MUTEX_ERRORCHECK);
  pthread_mutex_init(&block_->handle, &block_->attribute);
}

mutex::~mutex() {
  pthread_mutex_destroy(&block_->handle);
  pthread_mutexattr_destroy(&block_->attribute);
  delete block_;
}

void mutex::lock() {
  int const result = pthread_mutex_lock(&block_->handle);
  if (result == 0) return;
  if (result == EDEADLK) ZARN_THROW(lock_error("The current thread has already locked the mutex."));
  ZARN_THROW(lock_error("Failed to lock mutex."));
}

bool mutex::try_lock() {
  return pthread_mutex_trylock(&block_->handle) == 0;
}

void mutex::unlock() {
  pthread_mutex_unlock(&block_->handle);
}

}  // namespace utility
}  // namespace support
}  // namespace zarn
