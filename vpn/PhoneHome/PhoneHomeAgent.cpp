// The agent's lifecycle: construction, the wait loop in Start(), Stop() from another
// thread, timer and event dispatch, destruction.
#define PH_LOG_SOURCE "vpn/PhoneHome/PhoneHomeAgent"

#include "PhoneHomeAgent.h"

#include <climits>

#include "AllocationGuard.h"
#include "ExecutionContext.h"
#include "FileUploader.h"
#include "PhoneHomeConfig.h"
#include "PhoneHomeLog.h"
#include "PhoneHomePluginImp.h"

using phonehome::RanWithMemory;
using phonehome::UnlessOutOfMemory;

namespace {

const unsigned long kStarterDelayMs = 300000;
const int kDefaultEventWaitMs = 86400;  // milliseconds, used when the timer list fails

// Releases an acquired execution context on every return path.
class AcquiredContext {
public:
    explicit AcquiredContext(CExecutionContext* context) : m_pContext(context) {}
    ~AcquiredContext() {
        if (m_pContext != nullptr) {
            m_pContext->releaseInstance();
        }
    }
    CExecutionContext* get() const { return m_pContext; }
    AcquiredContext(const AcquiredContext&) = delete;
    AcquiredContext& operator=(const AcquiredContext&) = delete;

private:
    CExecutionContext* m_pContext;
};

// The modules whose feedback files each "Phone Home" cycle collects, with the settings
// key under which each reports its file.
const char* const kModuleFileKeys[][2] = {
    {"OstraModule", "OstraPhoneHomeFile"},
    {"WebSecurityModule", "WebSecurityPhoneHomeFile"},
    {"VpnModule", "VpnPhoneHomeFile"},
    {"TelemetryModule", "TelemetryPhoneHomeFile"},
};

}  // namespace

CPhoneHomeAgent::CPhoneHomeAgent(long& result, CPhoneHomePlugin& plugin)
    : m_pThreatReportDirChangeEvent(nullptr),
      m_PhoneHomePayload(false),
      m_pQualityImprovementData(nullptr),
      m_pWakeupEvent(nullptr),
      m_pPhoneHomeStarterTimer(nullptr),
      m_pPhoneHomeTimer(nullptr),
      m_pCheckCrashTimer(nullptr),
      m_pDelayGetThreatReportDirTimer(nullptr),
      m_pPostRetryTimer(nullptr),
      m_bStopRequested(false),
      m_bRunning(false),
      m_rPhoneHomePlugin(plugin),
      m_pExecutionContext(nullptr),
      m_pFileUploader(nullptr),
      m_tstrServerURL(phonehome::kDefaultServerURL),
      m_tstrCustomerID("release"),
      m_bDisabled(false),
      m_bIncludeCrashReport(true),
      m_bCompressData(false),
      m_uiServerPort(443),
      m_uiFeedbackInterval(2592000),
      m_uiCheckCrashInterval(86400),
      m_uiSequenceNumber(1),
      m_uiPostRetryCount(0),
      m_uiCollectionPeriodStart(0),
      m_uiCollectRetryCount(kCollectRetries),
      m_ModuleSettings(true) {
    result = CExecutionContext::CreateMultitonInstance(m_pExecutionContext, kExecutionContextId);
    if (result != 0) {
        PH_LOG_RC(PH_ERROR, "CExecutionContext::CreateMultitonInstance", result);
        return;
    }
    // The context is held from here on: no exception may leave the constructor, or the
    // destructor that releases it would never run.
    if (!RanWithMemory([&] {
            m_pWakeupEvent = new CCEvent(result, m_pExecutionContext->GetEventList(),
                                         static_cast<CCEvent::EVENT_TYPE>(1),
                                         static_cast<IEventCB*>(this), nullptr, kWakeupEventId, 0,
                                         static_cast<CCEvent::EVENT_HANDLE_TYPE>(-1), nullptr);
        })) {
        result = pwresult::kOutOfResources;
    }
    if (result != 0) {
        PH_LOG_RC(PH_ERROR, "CCEvent", result, "wakeup event handler creation failed");
        return;
    }
    if (m_tstrCustomerID.empty()) {
        m_tstrCustomerID = "Unofficial";
    }
}

CPhoneHomeAgent::~CPhoneHomeAgent() {
    RanWithMemory([this] { SaveHistoryFile(); });
    DestroyFileUploader();
    CTimer** timers[] = {&m_pPostRetryTimer, &m_pDelayGetThreatReportDirTimer, &m_pCheckCrashTimer,
                         &m_pPhoneHomeTimer, &m_pPhoneHomeStarterTimer};
    for (CTimer** timer : timers) {
        delete *timer;
        *timer = nullptr;
    }
    delete m_pWakeupEvent;
    m_pWakeupEvent = nullptr;
    // The directory watcher is left to the host framework: the context takes it down with
    // its last reference.
    if (m_pExecutionContext != nullptr) {
        m_pExecutionContext->releaseInstance();
        m_pExecutionContext = nullptr;
    }
    m_mapHistory.clear();
    m_mapConfig.clear();
    m_mapPendingModules.clear();
    // A list leaves its stream to whoever bound it: the payload's is the agent's.
    delete m_PhoneHomePayload.GetStream();
}

bool CPhoneHomeAgent::CreateTimer(CTimer*& timer, unsigned long id, const char* label,
                                  unsigned long milliseconds, bool start) {
    long result = UnlessOutOfMemory(pwresult::kOutOfResources, [&] {
        long made = 0;
        timer = new CTimer(made, m_pExecutionContext->GetTimerList(), this, nullptr, id);
        return made;
    });
    if (result != 0) {
        PH_LOG_RC_AS("Start", PH_ERROR, "CTimer", result, "%s", label);
        return false;
    }
    if (start) {
        result = timer->StartTimer(milliseconds);
        if (result != 0) {
            PH_LOG_RC_AS("Start", PH_ERROR, "CTimer::StartTimer", result);
            return false;
        }
    }
    return true;
}

bool CPhoneHomeAgent::Start() {
    if (m_bRunning.exchange(true)) {
        PH_LOG(PH_WARNING, "Customer Experience Feedback module is already running");
        return false;
    }
    if (!UnlessOutOfMemory(false, [this] { return InitPhoneHomeAgent(); })) {
        PH_LOG(PH_WARNING, "PhoneHomeAgent initialization failed");
        return false;
    }
    if (m_bDisabled) {
        PH_LOG(PH_WARNING, "Customer Experience Feedback module is disabled");
        return true;
    }
    PH_LOG(PH_INFO, "Starting Customer Experience Feedback module");

    AcquiredContext context(UnlessOutOfMemory<CExecutionContext*>(
        nullptr, [] { return CExecutionContext::acquireInstance(kExecutionContextId); }));
    if (context.get() == nullptr) {
        PH_LOG_RC(PH_ERROR, "CInstanceSmartPtr<CExecutionContext>", pwresult::kContextUnavailable);
        return false;
    }

    if (!CreateTimer(m_pPhoneHomeTimer, kPhoneHomeTimerId, "Phone Home",
                     CalcRemainingSeconds("last_feedback", m_uiFeedbackInterval) * 1000u, true)) {
        return false;
    }
    if (m_bIncludeCrashReport &&
        !CreateTimer(m_pCheckCrashTimer, kCheckCrashTimerId, "Check Crash",
                     CalcRemainingSeconds("last_crash_report", m_uiCheckCrashInterval) * 1000u,
                     true)) {
        return false;
    }
    if (!CreateTimer(m_pDelayGetThreatReportDirTimer, kDelayGetThreatReportDirTimerId,
                     "Delay get threat report dir", 0, false)) {
        return false;
    }
    if (!FireDelayGetThreatReportDirTimer()) {
        PH_LOG(PH_ERROR, "Failed to fire threat report timer");
    }
    if (!CreateTimer(m_pPostRetryTimer, kPostRetryTimerId, "Post Retry", 0, false)) {
        return false;
    }
    if (!CreateTimer(m_pPhoneHomeStarterTimer, kPhoneHomeStarterTimerId, "Phone Home starter",
                     kStarterDelayMs, true)) {
        return false;
    }

    bool result = RunLoop();
    PH_LOG(PH_INFO, "Customer Experience Feedback module stopped");
    m_bRunning = false;
    return result;
}

bool CPhoneHomeAgent::RunLoop() {
    CEventList* events = m_pExecutionContext->GetEventList();
    CTimerList* timers = m_pExecutionContext->GetTimerList();
    for (;;) {
        // The host's calls fail like any of its calls when memory is short; the handlers
        // they dispatch to keep their own failures.
        unsigned long waitMs = 0;
        long rc = UnlessOutOfMemory(pwresult::kOutOfResources,
                                    [&] { return timers->TimeToExpired(waitMs); });
        if (rc != 0) {
            PH_LOG_RC_AS("Start", PH_WARNING, "CTimerList::TimeToExpired", rc,
                         "Defaulting to %d ms event wait", kDefaultEventWaitMs);
            waitMs = kDefaultEventWaitMs;
        }
        if (waitMs > UINT_MAX) {
            waitMs = UINT_MAX;
        }
        rc = UnlessOutOfMemory(pwresult::kOutOfResources, [&] {
            return events->WaitOnEvents(static_cast<unsigned int>(waitMs), true);
        });
        if (rc != 0 && !PwResultEquals(rc, pwresult::kWaitTimedOut)) {
            PH_LOG_RC_AS("Start", PH_ERROR, "CEventList::WaitOnEvents", rc);
            return false;
        }
        rc = UnlessOutOfMemory(pwresult::kOutOfResources, [&] { return timers->CheckExpired(); });
        if (rc != 0) {
            PH_LOG_RC_AS("Start", PH_ERROR, "CTimerList::CheckExpired", rc);
            return false;
        }
        if (m_bStopRequested) {
            return true;
        }
    }
}

bool CPhoneHomeAgent::Stop() {
    if (!m_bRunning) {
        return false;
    }
    {
        // The flag is set under the uploader's lock, so that an upload that starts after
        // this point is cut short by SetFileUploader instead of running to its end.
        std::lock_guard<std::mutex> lock(m_uploaderMutex);
        m_bStopRequested = true;
        if (m_pFileUploader != nullptr) {
            m_pFileUploader->TerminateSession();
        }
    }
    // The wake-up must not depend on the log line having the memory it needs.
    RanWithMemory([] { PH_LOG(PH_INFO, "Send stop event to PhoneHome agent"); });
    if (m_pWakeupEvent != nullptr && m_pWakeupEvent->SetEvent(false) == 0) {
        return true;
    }
    PH_LOG(PH_ERROR, "SetEvent Failed");
    return false;
}

void CPhoneHomeAgent::SetFileUploader(CFileUploader* uploader) {
    CFileUploader* previous = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_uploaderMutex);
        previous = m_pFileUploader;
        m_pFileUploader = uploader;
        if (uploader != nullptr && m_bStopRequested) {
            uploader->TerminateSession();
        }
    }
    delete previous;
}

void CPhoneHomeAgent::DestroyFileUploader() {
    SetFileUploader(nullptr);
}

// Called by the host's timer list: whatever memory the work lacks, nothing unwinds into
// the host (the work reports its own failures; a log line without memory is dropped).
void CPhoneHomeAgent::OnTimerExpired(void* /*context*/, unsigned long timerId) {
    RanWithMemory([this, timerId] { DispatchTimer(timerId); });
}

void CPhoneHomeAgent::DispatchTimer(unsigned long timerId) {
    switch (timerId) {
        case kPhoneHomeStarterTimerId:
            OnPhoneHomeStarterTimer();
            return;
        case kPhoneHomeTimerId:
            OnPhoneHomeTimer();
            return;
        case kCheckCrashTimerId: {
            UnlessOutOfMemory(false, [this] { return CheckCrashDumps(); });
            long rc = UnlessOutOfMemory(pwresult::kOutOfResources, [this] {
                return m_pCheckCrashTimer->StartTimer(m_uiCheckCrashInterval * 1000u);
            });
            if (rc != 0) {
                PH_LOG_RC(PH_ERROR, "CTimer::StartTimer", rc);
            }
            return;
        }
        case kDelayGetThreatReportDirTimerId:
            if (!UnlessOutOfMemory(false, [this] { return CreateThreatReportDirChangeEvent(); })) {
                PH_LOG(PH_INFO, "Failed to create threat report dir change event");
            }
            return;
        case kPostRetryTimerId:
            OnPostRetryTimer();
            return;
        default:
            PH_LOG(PH_ERROR, "Unexpected timer");
            return;
    }
}

void CPhoneHomeAgent::OnPhoneHomeStarterTimer() {
    CBencodeSettings settings(m_ModuleSettings);
    IPhoneHomePluginCB* callback = m_rPhoneHomePlugin.GetPhoneHomePluginCB();
    // A host that has not registered its callback yet gets the same treatment as one whose
    // callback failed: logged, and posting goes on.
    long rc = callback == nullptr ? pwresult::kNullCallback
                                  : UnlessOutOfMemory(pwresult::kOutOfResources, [&] {
                                        return callback->GetSettingsCB(settings);
                                    });
    if (rc != 0) {
        PH_LOG_RC_AS("OnTimerExpired", PH_ERROR, "GetSettingsCB", rc,
                     "Failed to retrieve PhoneHome settings from modules");
    }
    if (!UnlessOutOfMemory(false, [this] { return ScanAndPostFile(0); })) {
        PH_LOG_AS("OnTimerExpired", PH_ERROR, "ScanAndPostFile failed");
    }
}

void CPhoneHomeAgent::OnPhoneHomeTimer() {
    bool retryScheduled = false;
    if (!UnlessOutOfMemory(false, [this, &retryScheduled] {
            if (m_mapPendingModules.empty()) {
                for (const auto& module : kModuleFileKeys) {
                    m_mapPendingModules[module[0]] = module[1];
                }
                m_uiCollectRetryCount = kCollectRetries;
            }
            return CollectPhoneHomeDataAndSend(retryScheduled);
        })) {
        PH_LOG_AS("OnTimerExpired", PH_ERROR, "Failed to collect phoneHome data from modules");
    }
    if (retryScheduled) {
        return;
    }
    long rc = UnlessOutOfMemory(pwresult::kOutOfResources, [this] {
        return m_pPhoneHomeTimer->StartTimer(m_uiFeedbackInterval * 1000u);
    });
    if (rc != 0) {
        PH_LOG_RC_AS("OnTimerExpired", PH_ERROR, "CTimer::StartTimer", rc);
    }
}

void CPhoneHomeAgent::OnPostRetryTimer() {
    unsigned int retrySeconds = 0;
    if (m_uiPostRetryCount > 0) {
        --m_uiPostRetryCount;
        retrySeconds = kPostRetryDelaySeconds;
    }
    bool posted =
        UnlessOutOfMemory(false, [this, retrySeconds] { return ScanAndPostFile(retrySeconds); });
    if (!posted) {
        PH_LOG_AS("OnTimerExpired", PH_ERROR, "ScanAndPostFile failed");
    }
}

void CPhoneHomeAgent::OnEventSignaled(void* /*context*/, unsigned long eventId) {
    if (eventId == kWakeupEventId) {
        return;  // it only ends the wait
    }
    RanWithMemory([] { PH_LOG(PH_ERROR, "Unexpected event"); });
}
