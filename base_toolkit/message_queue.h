// A queue on which worker threads leave results for the host's event thread.
//
// IPushable is the one-way side a producer needs. MessageQueue keeps items by
// value in a double-ended queue under a mutex. The mutex and the condition
// variable exist only after Init: a queue that was never initialised refuses
// every operation with QS_NOT_IMPEMENTED and stores nothing, which callers
// may rely on to switch the queue off.
//
// Thread safety: any number of threads may use an initialised queue at once.
// Init must finish before the queue is shared (the flag is read unlocked).
#pragma once

#include <pthread.h>

#include <deque>

#include "qs_codes.h"
#include "qs_log.h"

namespace quillstone {
namespace utilities {

template <typename T>
class IPushable {
 public:
  virtual int Push(const T& item) = 0;
  virtual int PushFront(const T& item) = 0;
  virtual ~IPushable() {}
};

template <typename T>
class MessageQueue : public IPushable<T> {
 public:
  MessageQueue() : is_inited_(false) {}
  MessageQueue(const MessageQueue&) = delete;
  MessageQueue& operator=(const MessageQueue&) = delete;

  ~MessageQueue() override {
    if (is_inited_) {
      pthread_cond_destroy(&cond_);
      pthread_mutex_destroy(&mutex_);
    }
  }

  // Creates the lock and the wake-up. 0, or the error of the pthread call;
  // a second call on an initialised queue changes nothing.
  int Init() {
    if (is_inited_) return 0;
    int err = pthread_mutex_init(&mutex_, nullptr);
    if (err != 0) return err;
    err = pthread_cond_init(&cond_, nullptr);
    if (err != 0) {
      pthread_mutex_destroy(&mutex_);
      return err;
    }
    is_inited_ = true;
    return 0;
  }

  int Push(const T& item) override { return Insert(item, false); }
  int PushFront(const T& item) override { return Insert(item, true); }

  // Takes the front item without waiting: 0, -1 when empty (*item untouched).
  int Pop(T* item) {
    if (!CheckInited()) return QS_NOT_IMPEMENTED;
    pthread_mutex_lock(&mutex_);
    int result = -1;
    if (!queue_.empty()) {
      *item = queue_.front();
      queue_.pop_front();
      result = 0;
    }
    pthread_mutex_unlock(&mutex_);
    return result;
  }

  // Non-zero when empty, 0 with items, QS_NOT_IMPEMENTED when not initialised
  // (non-zero too, so a "while not empty" loop ends).
  int IsEmpty() {
    if (!CheckInited()) return QS_NOT_IMPEMENTED;
    pthread_mutex_lock(&mutex_);
    int empty = queue_.empty() ? 1 : 0;
    pthread_mutex_unlock(&mutex_);
    return empty;
  }

 private:
// Messages of this header name the source that includes it.
#ifndef QS_SOURCE_NAME
#define QS_SOURCE_NAME "base_toolkit/message_queue"
#define QS_MESSAGE_QUEUE_OWN_NAME
#endif
  bool CheckInited() {
    if (is_inited_) return true;
    QS_LOG_CONDITION("is_inited_", "QS_NOT_IMPEMENTED");
    return false;
  }

  int Insert(const T& item, bool front) {
    if (!CheckInited()) return QS_NOT_IMPEMENTED;
    pthread_mutex_lock(&mutex_);
    try {
      if (front) {
        queue_.push_front(item);
      } else {
        queue_.push_back(item);
      }
    } catch (...) {
      // The deque is unchanged; release the lock and let the caller see why.
      pthread_mutex_unlock(&mutex_);
      throw;
    }
    pthread_cond_signal(&cond_);
    pthread_mutex_unlock(&mutex_);
    return 0;
  }
#ifdef QS_MESSAGE_QUEUE_OWN_NAME
#undef QS_SOURCE_NAME
#undef QS_MESSAGE_QUEUE_OWN_NAME
#endif

  std::deque<T> queue_;
  pthread_mutex_t mutex_;
  pthread_cond_t cond_;
  bool is_inited_;
};

}  // namespace utilities
}  // namespace quillstone
