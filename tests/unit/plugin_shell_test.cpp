// The plug-in's entry points, the status object and the profile reader.
#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "AgentTestSupport.h"
#include "AppLog.h"
#include "UITranslator.h"

using namespace pwtest;

namespace {

using PluginShellTest = AgentFixture;
const char* const kFeedback = PHONEHOME_PLUGIN_INTERFACE_NAME;
const char* const kStatus = COMPONENT_STATUS_INTERFACE_NAME;

// Each name makes its own object, which answers for its interface at version 1 only; a
// feedback object whose agent cannot be made is not handed out.
TEST_F(PluginShellTest, CreatePluginAnswersExactlyTheTwoInterfaceNames) {
    // clang-format off
    const char* const names[] = {kFeedback, kStatus, "COM.NORVEK.PATHWEAVE.SERVICE.CUSTOMER.FEEDBACK", "com.norvek.pathweave.component.status ", "", nullptr};
    // clang-format on
    for (const char* name : names) {
        Plugin* plugin = CreatePlugin(name);
        const bool known = name == kFeedback || name == kStatus;
        ASSERT_EQ(known, plugin != nullptr) << (name ? name : "(null)");
        for (unsigned int version : {0u, 1u, 2u}) {
            for (const char* asked : {kFeedback, kStatus}) {
                EXPECT_EQ(known && asked == name && version == 1,
                          known && plugin->SupportsInterface(asked, version));
            }
        }
        EXPECT_TRUE(DisposePlugin(plugin));
    }
    PluginInterfaceList list = GetAvailableInterfaces();
    ASSERT_EQ(2u, list.count);
    EXPECT_EQ(g_AvailableInterfaces, list.interfaces);
    EXPECT_STREQ(kFeedback, list.interfaces[0].name);
    EXPECT_STREQ(kStatus, list.interfaces[1].name);
    EXPECT_EQ(1u, list.interfaces[0].version);
    EXPECT_EQ(1u, list.interfaces[1].version);
    FailNext(Fault::CreateEvent, PwResult(0xFE010099));
    EXPECT_EQ(nullptr, CreatePlugin(kFeedback));
    ASSERT_EQ(1u, Failures("CreatePlugin").size()) << DumpLog();
    EXPECT_TRUE(PwResultEquals(Failures("CreatePlugin")[0].result, 0xFE010099));
}

TEST_F(PluginShellTest, CallbackSetterRefusesNullAndKeepsThePreviousOne) {
    ModuleSettingsCallback callback;
    EXPECT_EQ(0, m_plugin->SetPhoneHomePluginCB(&callback));
    EXPECT_TRUE(PwResultEquals(m_plugin->SetPhoneHomePluginCB(nullptr), 0xFFFFFFFA));
    EXPECT_EQ(&callback, m_plugin->GetPhoneHomePluginCB());
    EXPECT_EQ(0, m_plugin->UnSetPhoneHomePluginCB());
    EXPECT_EQ(nullptr, m_plugin->GetPhoneHomePluginCB());
    EXPECT_TRUE(PwResultEquals(m_plugin->PluginDirChanged(), 0xFFFFFFFF)) << "not running";
}

// The status object reads the profile at every query; a missing profile is one line of
// the plug-in's own each time.
TEST_F(PluginShellTest, StatusFollowsTheProfileAtEveryQuery) {
    // clang-format off
    const struct { const char* profile; bool enabled, crashName; } cases[] = {  // null: no profile
        {nullptr, true, false},
        {"<ServiceDisable>true</ServiceDisable><IncludeCrashReport>true</IncludeCrashReport>", false, false},
        {"<ServiceDisable>false</ServiceDisable>", true, true},
        {"<IncludeCrashReport>no</IncludeCrashReport>", true, false},
        {"<ServiceDisable>TRUE</ServiceDisable>", false, false},
    };
    // clang-format on
    UITranslator translator;
    const std::string plain = translator.translate(UITranslator::PhoneHomeComponentName);
    const std::string crash = translator.translate(UITranslator::PhoneHomeWithCrashDumpName);
    ASSERT_NE(plain, crash);
    CPhoneHomeStatus status;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.profile ? c.profile : "(none)");
        remove(status.GetConfigFilePath().c_str());
        if (c.profile != nullptr) {
            WriteProfile(c.profile);
        }
        ClearCapturedLogs();
        bool enabled = !c.enabled;
        char buffer[128];
        unsigned int size = sizeof buffer;
        EXPECT_EQ(0, status.IsEnabled(enabled) + status.GetDisplayName(buffer, size));
        EXPECT_EQ(c.enabled, enabled);
        EXPECT_EQ(c.crashName ? crash : plain, buffer);
        EXPECT_EQ(c.profile ? 0u : 2u, CapturedLogs().size()) << DumpLog();
        for (const LogRecord& r : CapturedLogs()) {
            EXPECT_TRUE(r.failedCall == "XmlParser::parseFile" &&
                        PwResultEquals(r.result, 0xFE300001) &&
                        r.sourceFile == "vpn/PhoneHome/PhoneHomePluginImp");
        }
    }
    // A buffer too small (or none) is left alone and told the size needed, terminator included.
    unsigned int size = 0;
    EXPECT_TRUE(PwResultEquals(status.GetDisplayName(nullptr, size), 0xFFFFFFFD));
    std::vector<char> buffer(size, 'x');
    EXPECT_EQ(plain.size() + 1, size);
    size = static_cast<unsigned int>(plain.size());
    EXPECT_TRUE(PwResultEquals(status.GetDisplayName(buffer.data(), size), 0xFFFFFFFD));
    EXPECT_EQ('x', buffer[0]);
    EXPECT_EQ(0, status.GetDisplayName(buffer.data(), size));
    EXPECT_EQ(plain, buffer.data());
}

TEST_F(PluginShellTest, ProfileReaderAppliesTheValueRules) {
    // clang-format off
    const struct { const char* xml; bool disabled, includeCrash; long feedbackInterval; const char* customerId; } cases[] = {
        {"", false, true, 0, ""},
        {"<ServiceDisable> true</ServiceDisable>", false, true, 0, ""},
        {"<IncludeCrashReport>no</IncludeCrashReport>", false, false, 0, ""},
        {"<FeedbackInterval>3600abc</FeedbackInterval>", false, true, 3600, ""},
        {"<FeedbackInterval>99999999999</FeedbackInterval>", false, true, 2147483647, ""},
        {"<X><Y><CustomerID>acme</CustomerID></Y></X>", false, true, 0, "acme"},
        {"<customerid>acme</customerid>", false, true, 0, ""},
        {"<CustomerID> a b </CustomerID>", false, true, 0, " a b "},
        {"<ServiceDisable a=\"1\">true</ServiceDisable>true", true, true, 0, ""},
        {"<CustomerID>x</CustomerID>trailing<CustomerID>y</CustomerID>", false, true, 0, "y"},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xml);
        PhoneHomeXmlMgr h;
        ASSERT_EQ(0, XmlParser(&h).parseString(std::string("<Feedback>") + c.xml + "</Feedback>"));
        EXPECT_EQ(std::make_tuple(c.disabled, c.includeCrash, c.feedbackInterval,
                                  std::string(c.customerId)),
                  std::make_tuple(h.GetServiceDisable(), h.GetIncludeCrashReport(),
                                  h.GetFeedbackInterval(), std::string(h.GetCustomerID())));
    }
}

// The marker counts only when it can be opened: a dangling link or a link loop (which root
// cannot open either) does not disable the service.
TEST_F(PluginShellTest, DisableMarkerIsSeenOnlyWhenItCanBeOpened) {
    TempDir dir;
    const std::string marker = dir / "cefdisable";
    EXPECT_TRUE(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.path()));
    ASSERT_TRUE(WriteFile(marker, ""));
    EXPECT_FALSE(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.path()));
    for (const std::string& target : {dir / "nothing", marker}) {
        remove(marker.c_str());
        ASSERT_EQ(0, symlink(target.c_str(), marker.c_str()));
        EXPECT_TRUE(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.path())) << target;
    }
}

}  // namespace
