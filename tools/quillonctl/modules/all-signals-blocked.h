#ifndef QUILLON_QUILLONCTL_ALL_SIGNALS_BLOCKED_H
#define QUILLON_QUILLONCTL_ALL_SIGNALS_BLOCKED_H

#include <signal.h>

namespace quillon {

/// Blocks all signals on the calling thread while it lives. A thread that is started meanwhile
/// takes none.
class AllSignalsBlocked
{
public:
    AllSignalsBlocked()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~AllSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    AllSignalsBlocked(const AllSignalsBlocked&) = delete;
    AllSignalsBlocked& operator=(const AllSignalsBlocked&) = delete;

private:
    sigset_t m_before = {};
};

}  // namespace quillon

#endif
