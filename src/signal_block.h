/*
 * signal_block.h -- blocks every signal in the calling thread for a scope.
 */
#ifndef PARVO_SIGNAL_BLOCK_H
#define PARVO_SIGNAL_BLOCK_H

#include <errno.h>
#include <signal.h>

/*
 * Threads started in the scope inherit a mask with every signal blocked.  The calling
 * thread's mask is as before afterwards, and errno is left alone.
 */
class SignalBlock {
  public:
    SignalBlock() {
        sigset_t all;
        blocked_ =
            sigfillset(&all) == 0 && pthread_sigmask(SIG_SETMASK, &all, &before_) == 0;
    }
    ~SignalBlock() {
        const int error = errno;
        // A thread left with every signal blocked could no longer be stopped: a failed
        // attempt to put the mask back is repeated once.
        for (int attempt = 0; blocked_ && attempt < 2; attempt++) {
            blocked_ = pthread_sigmask(SIG_SETMASK, &before_, nullptr) != 0;
        }
        errno = error;
    }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

  private:
    sigset_t before_;
    bool blocked_;
};

#endif
