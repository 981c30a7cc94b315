// The one view into the feedback agent that tests and benchmarks take: an agent
// initialised without its loop (the caller plays the loop through OnTimerExpired), the time
// left on one of its timers, and the few switches that no host call reaches. Everything
// else is seen from outside: files, requests, the log, the host's timer list.
#pragma once

#include "PhoneHomeAgent.h"
#include "Timer.h"

class PhoneHomeAgentTestAccess {
public:
    // Initialises the agent as Start() does and makes its five timers, none of them armed.
    static bool Prepare(CPhoneHomeAgent& agent) {
        bool made = agent.InitPhoneHomeAgent();
        for (unsigned long id = kFirst; made && id <= CPhoneHomeAgent::kPostRetryTimerId; ++id) {
            made = agent.CreateTimer(Timer(agent, id), id, "", 0, false);
        }
        return made;
    }

    // Milliseconds left on timer `id` (2 to 6); -1 when it does not exist or is not armed.
    static long long RemainingMs(CPhoneHomeAgent& agent, unsigned long id) {
        CTimer* timer = Timer(agent, id);
        unsigned long ms = 0;
        return timer != nullptr && timer->IsRunning() && timer->RemainingMs(ms)
                   ? static_cast<long long>(ms)
                   : -1;
    }

    // The stop flag alone, as Stop() sets it, without cutting a post in progress short.
    static void RequestStop(CPhoneHomeAgent& agent) { agent.m_bStopRequested = true; }
    // Compression of posted files: no profile or config entry switches it on.
    static void CompressPosts(CPhoneHomeAgent& agent) { agent.m_bCompressData = true; }
    // One pass over the threat directory, as the directory watcher runs it.
    static void ThreatDirChanged(CPhoneHomeAgent& agent) {
        CPhoneHomeAgent::ThreatReportDirChangeHandler(&agent, 0);
    }

private:
    static const unsigned long kFirst = CPhoneHomeAgent::kPhoneHomeStarterTimerId;
    // The timer members in the order of their ids.
    static CTimer*& Timer(CPhoneHomeAgent& agent, unsigned long id) {
        CTimer** timers[] = {&agent.m_pPhoneHomeStarterTimer, &agent.m_pPhoneHomeTimer,
                             &agent.m_pCheckCrashTimer, &agent.m_pDelayGetThreatReportDirTimer,
                             &agent.m_pPostRetryTimer};
        return *timers[id - kFirst];
    }
};
