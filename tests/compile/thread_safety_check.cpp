// Compiled by thread_safety_test.sh, never linked: each TOVAK_CASE breaks
// one lock rule, and clang must refuse it; with no case it must compile.
#include "common/tovak_mutex.h"
#include "config/tovak_config.h"

static tovak_mutex m;
static int guarded GUARDED_BY(m);

static void needs_m() REQUIRES(m)
{
    guarded++;
}

void cases()
{
    {
        tovak_lock hold(m);
        needs_m();
    }
#if TOVAK_CASE == 1
    guarded = 1; // unguarded write
#elif TOVAK_CASE == 2
    needs_m(); // lock not held
#elif TOVAK_CASE == 3
    tovak_config_locked c;
    tovak_config_get_log_state(); // would deadlock: the lock is not recursive
#elif TOVAK_CASE == 4
    tovak_config cfg;
    tovak_config_add_event_locked(cfg, 1); // _locked without the lock
#endif
}
