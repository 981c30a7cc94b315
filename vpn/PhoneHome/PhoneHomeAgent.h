// The feedback agent: owns every piece of feedback state, the timers and the event loop,
// and runs the whole service on the thread that calls Start(). Its operations are split
// by concern over PhoneHomeAgent*.cpp (lifecycle, settings, history, payload, collection,
// posting, reports).
//
// Threads: everything runs on the thread inside Start(), except Stop(),
// FireDelayGetThreatReportDirTimer() (from CPhoneHomePlugin::PluginDirChanged) and the
// plug-in's flag and callback setters, which only set flags, signal the wake-up event,
// re-arm a timer or abort the upload session. Its state is private: what it does shows in
// its files, its posts, its timers and its log.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <map>
#include <mutex>
#include <string>

#include "Bencode.h"
#include "EventList.h"
#include "Timer.h"

class CExecutionContext;
class CFileSystemWatcher;
class CFileUploader;
class CPhoneHomePlugin;

class CPhoneHomeAgent : public ITimerCB, public IEventCB {
public:
    // Timer and event ids.
    static constexpr unsigned long kWakeupEventId = 1;
    static constexpr unsigned long kPhoneHomeStarterTimerId = 2;
    static constexpr unsigned long kPhoneHomeTimerId = 3;
    static constexpr unsigned long kCheckCrashTimerId = 4;
    static constexpr unsigned long kDelayGetThreatReportDirTimerId = 5;
    static constexpr unsigned long kPostRetryTimerId = 6;
    // The agent's execution context (multiton instance id).
    static constexpr unsigned int kExecutionContextId = 3;
    // A module file locked by its writer is tried again this much later, this many times.
    static constexpr unsigned long kCollectRetryDelayMs = 20000;
    static constexpr unsigned int kCollectRetries = 4;
    // After a failed post the outbound directory is scanned again this much later, this
    // many times.
    static constexpr unsigned int kPostRetryDelaySeconds = 1800;
    static constexpr unsigned int kPostRetries = 3;

    CPhoneHomeAgent(long& result, CPhoneHomePlugin& plugin);
    ~CPhoneHomeAgent() override;

    void OnTimerExpired(void* context, unsigned long timerId) override;
    void OnEventSignaled(void* context, unsigned long eventId) override;

    // Runs the service on the calling thread until Stop(); false on failure.
    bool Start();
    // Asks a running Start() to return; callable from any thread.
    bool Stop();
    // Restarts the delay before the threat directory is watched (the host reported a
    // changed plug-in directory); callable from any thread.
    bool FireDelayGetThreatReportDirTimer();

    CPhoneHomeAgent(const CPhoneHomeAgent&) = delete;
    CPhoneHomeAgent& operator=(const CPhoneHomeAgent&) = delete;

private:
    // Gives tests and benchmarks a start without the loop and a look at the timers.
    friend class PhoneHomeAgentTestAccess;

    // --- Settings (PhoneHomeAgentSettings.cpp) ---
    bool InitPhoneHomeAgent();
    void LoadSettingsFromXmlFile();
    void LoadSettingsFromConfigFile();
    static bool LoadFileToMap(const std::string& path, std::map<std::string, std::string>& map);
    // Gives `path` exactly `mode` when others may reach it; logs when it `existed` before.
    static void RestrictToOwnerAtStart(const std::string& path, mode_t mode, bool existed);

    // --- History (PhoneHomeAgentHistory.cpp) ---
    void LoadHistory();
    bool SaveHistoryFile();
    void UpdateTimeInHistory(char const* key);
    unsigned int CalcRemainingSeconds(char const* key, unsigned int intervalSeconds);

    // --- Payload and machine identifier (PhoneHomeAgentPayload.cpp) ---
    bool InitPhoneHomePayload();
    bool BuildLevel1Payload(CBencodeList& list);
    bool BuildLevel2Payload(CBencodeList& list);
    bool BuildLevel3Payload(CBencodeDictionary& dict);
    bool InsertOSDetails(CBencodeDictionary& dict);
    bool UpdateLevel2Payload(CBencodeList& level2);
    bool GetMachineID(std::string& id);
    bool SHA1Hash(const std::string& in, std::string& out);

    // --- Module data collection (PhoneHomeAgentCollection.cpp) ---
    bool CollectPhoneHomeDataAndSend(bool& timerRestarted);
    long GetModuleData(const std::string& moduleName, const std::string& fileKey,
                       CBencodeDictionary& moduleData);
    bool CreateBencodeFile(const std::string& pathPrefix);

    // --- Posting (PhoneHomeAgentPosting.cpp) ---
    bool PostDataFile(const std::string& path);
    bool ScanAndPostFile(unsigned int retrySeconds);

    // --- Crash and threat reports (PhoneHomeAgentReports.cpp) ---
    bool CheckCrashDumps();
    bool CheckCrashDumps(const std::string& directory, const std::string& moduleName);
    bool SaveCrashReportToDataFile(const std::string& path, const std::string& moduleName);
    bool GetFileCreationTime(const std::string& path, unsigned int& time);
    bool CreateThreatReportDirChangeEvent();
    static void ThreatReportDirChangeHandler(void* context, int event);
    static void OnThreatReportDirChange(void* context, int event);
    bool SaveThreatReportToFile(const std::string& path);

    // --- Lifecycle (PhoneHomeAgent.cpp) ---
    // Creates timer `id` and starts it for `milliseconds` (0: not started). On failure logs
    // and returns false; a timer already made stays with the agent.
    bool CreateTimer(CTimer*& timer, unsigned long id, const char* label,
                     unsigned long milliseconds, bool start);
    bool RunLoop();
    void DispatchTimer(unsigned long timerId);
    void OnPhoneHomeStarterTimer();
    void OnPhoneHomeTimer();
    void OnPostRetryTimer();
    // The uploader of the post in progress is shared with Stop() on another thread; this
    // lock keeps it alive while Stop() terminates its session.
    void SetFileUploader(CFileUploader* uploader);
    void DestroyFileUploader();

    // Members, in declaration order.
    CFileSystemWatcher* m_pThreatReportDirChangeEvent;
    CBencodeList m_PhoneHomePayload;
    CBencodeDictionary* m_pQualityImprovementData;
    CCEvent* m_pWakeupEvent;
    CTimer* m_pPhoneHomeStarterTimer;
    CTimer* m_pPhoneHomeTimer;
    CTimer* m_pCheckCrashTimer;
    CTimer* m_pDelayGetThreatReportDirTimer;
    CTimer* m_pPostRetryTimer;
    std::atomic<bool> m_bStopRequested;
    std::atomic<bool> m_bRunning;
    CPhoneHomePlugin& m_rPhoneHomePlugin;
    CExecutionContext* m_pExecutionContext;
    CFileUploader* m_pFileUploader;
    std::string m_tstrThreatReportDir;
    std::string m_tstrFeedbackDir;
    std::string m_tstrOutboundDir;
    std::string m_tstrHistoryFile;
    std::string m_tstrConfigFile;
    std::string m_tstrProfileFile;
    std::string m_tstrServerURL;
    std::string m_tstrUploaderParam;
    std::string m_tstrMachineID;
    std::string m_tstrCustomerID;
    bool m_bDisabled;
    bool m_bIncludeCrashReport;
    bool m_bCompressData;
    unsigned int m_uiServerPort;
    unsigned int m_uiFeedbackInterval;
    unsigned int m_uiCheckCrashInterval;
    unsigned int m_uiSequenceNumber;
    unsigned int m_uiPostRetryCount;
    unsigned int m_uiCollectionPeriodStart;
    unsigned int m_uiCollectRetryCount;
    CBencodeDictionary m_ModuleSettings;
    std::map<std::string, std::string> m_mapHistory;
    std::map<std::string, std::string> m_mapConfig;
    std::map<std::string, std::string> m_mapPendingModules;
    std::mutex m_uploaderMutex;
};
