// The plug-in's entry points, the status object and the profile reader.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "AgentTestSupport.h"
#include "PhoneHomePluginImp.h"
#include "UITranslator.h"
#include "XmlParser.h"

using namespace pwtest;

namespace {

class PluginShellTest : public AgentFixture {};

TEST_F(PluginShellTest, CreatePluginAnswersExactlyTheTwoInterfaceNames) {
    struct Case {
        const char* name;
        bool created;
    } cases[] = {
        {"com.norvek.pathweave.service.customer.feedback", true},
        {"com.norvek.pathweave.component.status", true},
        {"COM.NORVEK.PATHWEAVE.SERVICE.CUSTOMER.FEEDBACK", false},
        {"com.norvek.pathweave.component.Status", false},
        {"com.norvek.pathweave.component.status ", false},
        {"", false},
        {nullptr, false},
    };
    for (const Case& c : cases) {
        Plugin* plugin = CreatePlugin(c.name);
        EXPECT_EQ(c.created, plugin != nullptr) << (c.name ? c.name : "(null)");
        EXPECT_TRUE(DisposePlugin(plugin));
    }
}

// Each object answers for its own interface at version 1 only; the table lists both.
TEST_F(PluginShellTest, InterfacesAndTheirVersions) {
    Plugin* feedback = CreatePlugin(PHONEHOME_PLUGIN_INTERFACE_NAME);
    Plugin* status = CreatePlugin(COMPONENT_STATUS_INTERFACE_NAME);
    ASSERT_NE(nullptr, feedback);
    ASSERT_NE(nullptr, status);
    for (unsigned int version : {0u, 1u, 2u}) {
        EXPECT_EQ(version == 1,
                  feedback->SupportsInterface(PHONEHOME_PLUGIN_INTERFACE_NAME, version));
        EXPECT_EQ(version == 1,
                  status->SupportsInterface(COMPONENT_STATUS_INTERFACE_NAME, version));
        EXPECT_FALSE(feedback->SupportsInterface(COMPONENT_STATUS_INTERFACE_NAME, version));
        EXPECT_FALSE(status->SupportsInterface(PHONEHOME_PLUGIN_INTERFACE_NAME, version));
    }
    DisposePlugin(feedback);
    DisposePlugin(status);

    PluginInterfaceList list = GetAvailableInterfaces();
    ASSERT_EQ(2u, list.count);
    EXPECT_EQ(g_AvailableInterfaces, list.interfaces);  // the static table itself
    EXPECT_STREQ(PHONEHOME_PLUGIN_INTERFACE_NAME, list.interfaces[0].name);
    EXPECT_STREQ(COMPONENT_STATUS_INTERFACE_NAME, list.interfaces[1].name);
    EXPECT_EQ(1u, list.interfaces[0].version);
    EXPECT_EQ(1u, list.interfaces[1].version);
}

TEST_F(PluginShellTest, CallbackSetterRefusesNullAndKeepsThePreviousOne) {
    struct Callback : IPhoneHomePluginCB {
        long GetSettingsCB(IBencodeSettings&) override { return 0; }
    } callback;
    long result = 0;
    CPhoneHomePlugin plugin(result);
    ASSERT_EQ(0, result);
    EXPECT_EQ(0, plugin.SetPhoneHomePluginCB(&callback));
    EXPECT_TRUE(PwResultEquals(plugin.SetPhoneHomePluginCB(nullptr), 0xFFFFFFFA));
    EXPECT_EQ(&callback, plugin.GetPhoneHomePluginCB());
    EXPECT_EQ(0, plugin.UnSetPhoneHomePluginCB());
    EXPECT_EQ(nullptr, plugin.GetPhoneHomePluginCB());
    EXPECT_TRUE(PwResultEquals(plugin.PluginDirChanged(), 0xFFFFFFFF));
    EXPECT_TRUE(PwResultEquals(plugin.IsPhoneHomeRunning(), 0xFFFFFFFF));
}

TEST_F(PluginShellTest, CreatePluginFailsWhenTheAgentCannotBeMade) {
    FailNext(Fault::CreateEvent, PwResult(0xFE010099));
    EXPECT_EQ(nullptr, CreatePlugin(PHONEHOME_PLUGIN_INTERFACE_NAME));
    std::vector<LogRecord> failed = Failures("CreatePlugin");
    ASSERT_EQ(1u, failed.size()) << DumpLog();
    EXPECT_EQ("CreatePlugin", failed[0].function);
    EXPECT_TRUE(PwResultEquals(failed[0].result, 0xFE010099));
    EXPECT_EQ(87, failed[0].importance);
    EXPECT_TRUE(HasLogText("wakeup event handler creation failed"));
}

// --- Component status ---

TEST_F(PluginShellTest, StatusFollowsTheProfileAtEveryQuery) {
    const struct {
        const char* profile;  // null: no profile file
        bool enabled;
        bool crashName;
    } cases[] = {
        {nullptr, true, false},
        {"<ServiceDisable>true</ServiceDisable><IncludeCrashReport>true</IncludeCrashReport>",
         false, false},
        {"<ServiceDisable>false</ServiceDisable>", true, true},
        {"<IncludeCrashReport>no</IncludeCrashReport>", true, false},
        {"<ServiceDisable>TRUE</ServiceDisable>", false, false},
    };
    UITranslator translator;
    const std::string plain = translator.translate(UITranslator::PhoneHomeComponentName);
    const std::string crash = translator.translate(UITranslator::PhoneHomeWithCrashDumpName);
    ASSERT_NE(plain, crash);

    CPhoneHomeStatus status;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.profile ? c.profile : "(none)");
        std::string path = status.GetConfigFilePath();
        remove(path.c_str());
        if (c.profile != nullptr) {
            WriteProfile(c.profile);
        }
        ClearCapturedLogs();
        bool enabled = !c.enabled;
        EXPECT_EQ(0, status.IsEnabled(enabled));
        EXPECT_EQ(c.enabled, enabled);
        char buffer[128];
        unsigned int size = sizeof buffer;
        EXPECT_EQ(0, status.GetDisplayName(buffer, size));
        EXPECT_EQ(c.crashName ? crash : plain, buffer);
        // A missing profile is one line of the plug-in's own at every query.
        std::vector<LogRecord> logs = CapturedLogs();
        ASSERT_EQ(c.profile ? 0u : 2u, logs.size()) << DumpLog();
        for (const LogRecord& record : logs) {
            EXPECT_EQ("XmlParser::parseFile", record.failedCall);
            EXPECT_EQ("vpn/PhoneHome/PhoneHomePluginImp", record.sourceFile);
            EXPECT_TRUE(PwResultEquals(record.result, 0xFE300001));
        }
    }
}

TEST_F(PluginShellTest, DisplayNameBufferSizeProtocol) {
    WriteProfile("<IncludeCrashReport>false</IncludeCrashReport>");
    CPhoneHomeStatus status;
    unsigned int size = 0;
    EXPECT_TRUE(PwResultEquals(status.GetDisplayName(nullptr, size), 0xFFFFFFFD));
    ASSERT_GT(size, 1u);
    const unsigned int needed = size;

    std::vector<char> buffer(needed, 'x');
    size = needed - 1;  // the text's length: one byte short of the terminator
    EXPECT_TRUE(PwResultEquals(status.GetDisplayName(buffer.data(), size), 0xFFFFFFFD));
    EXPECT_EQ(needed, size);
    EXPECT_EQ('x', buffer[0]) << "the buffer is untouched when too small";

    size = needed;
    EXPECT_EQ(0, status.GetDisplayName(buffer.data(), size));
    EXPECT_EQ(needed, size);
    EXPECT_EQ(needed - 1, strlen(buffer.data()));
}

// --- Profile reader ---

TEST_F(PluginShellTest, ProfileReaderAppliesTheValueRules) {
    const long kMin = -2147483647L - 1;
    const struct {
        const char* xml;  // inside <Feedback>
        bool disabled;
        bool includeCrash;
        long feedbackInterval;
        const char* customerId;
    } cases[] = {
        {"", false, true, 0, ""},
        {"<ServiceDisable>True</ServiceDisable>", true, true, 0, ""},
        {"<ServiceDisable> true</ServiceDisable>", false, true, 0, ""},
        {"<ServiceDisable>true </ServiceDisable>", false, true, 0, ""},
        {"<ServiceDisable>1</ServiceDisable>", false, true, 0, ""},
        {"<IncludeCrashReport>no</IncludeCrashReport>", false, false, 0, ""},
        {"<FeedbackInterval>3600abc</FeedbackInterval>", false, true, 3600, ""},
        {"<FeedbackInterval>abc</FeedbackInterval>", false, true, 0, ""},
        {"<FeedbackInterval>-5</FeedbackInterval>", false, true, -5, ""},
        {"<FeedbackInterval>99999999999</FeedbackInterval>", false, true, 2147483647, ""},
        {"<FeedbackInterval>-99999999999</FeedbackInterval>", false, true, kMin, ""},
        {"<X><Y><CustomerID>acme</CustomerID></Y></X>", false, true, 0, "acme"},
        {"<customerid>acme</customerid>", false, true, 0, ""},
        {"<CustomerID> a b </CustomerID>", false, true, 0, " a b "},
        {"<ServiceDisable a=\"1\">true</ServiceDisable>true", true, true, 0, ""},
        {"<CustomerID>x</CustomerID>trailing<CustomerID>y</CustomerID>", false, true, 0, "y"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.xml);
        PhoneHomeXmlMgr handler;
        XmlParser parser(&handler);
        ASSERT_EQ(0, parser.parseString(std::string("<Feedback>") + c.xml + "</Feedback>"));
        EXPECT_EQ(c.disabled, handler.GetServiceDisable());
        EXPECT_EQ(c.includeCrash, handler.GetIncludeCrashReport());
        EXPECT_EQ(c.feedbackInterval, handler.GetFeedbackInterval());
        EXPECT_EQ(c.customerId, handler.GetCustomerID());
    }
}

// Empty text leaves an interval as it was; text after an end tag changes nothing. (The
// parser delivers neither: the handler is called as a parser could.)
TEST_F(PluginShellTest, EmptyTextAndTextAfterAnEndTag) {
    PhoneHomeXmlMgr handler;
    handler.addElement("FeedbackInterval");
    handler.setElementValue("7");
    handler.setElementValue("");
    EXPECT_EQ(7, handler.GetFeedbackInterval());
    handler.addElement("ServiceDisable");
    handler.endElement("ServiceDisable");
    handler.setElementValue("true");
    EXPECT_FALSE(handler.GetServiceDisable());
}

// The marker counts only when it can be opened: a dangling link or a link loop (which
// root cannot open either) does not disable the service.
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
