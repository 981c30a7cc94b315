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

TEST_F(PluginShellTest, SupportsInterfaceMatchesNameAndVersionOfEachObject) {
    Plugin* feedback = CreatePlugin(PHONEHOME_PLUGIN_INTERFACE_NAME);
    Plugin* status = CreatePlugin(COMPONENT_STATUS_INTERFACE_NAME);
    ASSERT_NE(nullptr, feedback);
    ASSERT_NE(nullptr, status);
    EXPECT_TRUE(feedback->SupportsInterface(PHONEHOME_PLUGIN_INTERFACE_NAME, 1));
    EXPECT_FALSE(feedback->SupportsInterface(PHONEHOME_PLUGIN_INTERFACE_NAME, 2));
    EXPECT_FALSE(feedback->SupportsInterface(COMPONENT_STATUS_INTERFACE_NAME, 1));
    EXPECT_TRUE(status->SupportsInterface(COMPONENT_STATUS_INTERFACE_NAME, 1));
    EXPECT_FALSE(status->SupportsInterface(COMPONENT_STATUS_INTERFACE_NAME, 0));
    EXPECT_FALSE(status->SupportsInterface(PHONEHOME_PLUGIN_INTERFACE_NAME, 1));
    DisposePlugin(feedback);
    DisposePlugin(status);
}

TEST_F(PluginShellTest, InterfaceTableIsStaticAndComplete) {
    PluginInterfaceList first = GetAvailableInterfaces();
    PluginInterfaceList second = GetAvailableInterfaces();
    ASSERT_EQ(2u, first.count);
    EXPECT_EQ(first.interfaces, second.interfaces);
    EXPECT_EQ(g_AvailableInterfaces, first.interfaces);
    EXPECT_STREQ(PHONEHOME_PLUGIN_INTERFACE_NAME, first.interfaces[0].name);
    EXPECT_STREQ(COMPONENT_STATUS_INTERFACE_NAME, first.interfaces[1].name);
    EXPECT_EQ(1u, first.interfaces[0].version);
    EXPECT_EQ(1u, first.interfaces[1].version);
    EXPECT_TRUE(DisposePlugin(nullptr));
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
    bool logged = false;
    for (const LogRecord& record : CapturedLogs()) {
        logged |= record.function == "CreatePlugin" && record.failedCall == "CreatePlugin" &&
                  PwResultEquals(record.result, 0xFE010099) && record.importance == 87;
    }
    EXPECT_TRUE(logged) << DumpLog();
    EXPECT_TRUE(HasLogText("wakeup event handler creation failed"));
}

// --- Component status ---

struct StatusCase {
    const char* profile;  // null: no profile file
    bool enabled;
    bool crashName;
};

TEST_F(PluginShellTest, StatusFollowsTheProfileAtEveryQuery) {
    const StatusCase cases[] = {
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
    for (const StatusCase& c : cases) {
        std::string path = status.GetConfigFilePath();
        remove(path.c_str());
        if (c.profile != nullptr) {
            WriteProfile(c.profile);
        }
        bool enabled = !c.enabled;
        EXPECT_EQ(0, status.IsEnabled(enabled));
        EXPECT_EQ(c.enabled, enabled) << (c.profile ? c.profile : "(none)");

        char buffer[128];
        unsigned int size = sizeof buffer;
        EXPECT_EQ(0, status.GetDisplayName(buffer, size));
        EXPECT_EQ(c.crashName ? crash : plain, buffer) << (c.profile ? c.profile : "(none)");
    }
    // A missing profile is logged at every query.
    EXPECT_GE(CapturedLogs().size(), 2u);
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

struct ProfileCase {
    const char* xml;
    bool disabled;
    bool includeCrash;
    long feedbackInterval;
    const char* customerId;
};

TEST_F(PluginShellTest, ProfileReaderAppliesTheValueRules) {
    const ProfileCase cases[] = {
        {"<Feedback/>", false, true, 0, ""},
        {"<Feedback><ServiceDisable>True</ServiceDisable></Feedback>", true, true, 0, ""},
        {"<Feedback><ServiceDisable> true</ServiceDisable></Feedback>", false, true, 0, ""},
        {"<Feedback><ServiceDisable>true </ServiceDisable></Feedback>", false, true, 0, ""},
        {"<Feedback><ServiceDisable>1</ServiceDisable></Feedback>", false, true, 0, ""},
        {"<Feedback><IncludeCrashReport>no</IncludeCrashReport></Feedback>", false, false, 0, ""},
        {"<Feedback><FeedbackInterval>3600abc</FeedbackInterval></Feedback>", false, true, 3600,
         ""},
        {"<Feedback><FeedbackInterval>abc</FeedbackInterval></Feedback>", false, true, 0, ""},
        {"<Feedback><FeedbackInterval>-5</FeedbackInterval></Feedback>", false, true, -5, ""},
        {"<Feedback><FeedbackInterval>7</FeedbackInterval><FeedbackInterval></FeedbackInterval>"
         "</Feedback>",
         false, true, 7, ""},
        {"<Feedback><FeedbackInterval>99999999999</FeedbackInterval></Feedback>", false, true,
         2147483647, ""},
        {"<Feedback><FeedbackInterval>-99999999999</FeedbackInterval></Feedback>", false, true,
         -2147483647L - 1, ""},
        {"<Feedback><X><Y><CustomerID>acme</CustomerID></Y></X></Feedback>", false, true, 0,
         "acme"},
        {"<Feedback><customerid>acme</customerid></Feedback>", false, true, 0, ""},
        {"<Feedback><CustomerID> a b </CustomerID></Feedback>", false, true, 0, " a b "},
        {"<Feedback><ServiceDisable a=\"1\">true</ServiceDisable>true</Feedback>", true, true, 0,
         ""},
        {"<Feedback><CustomerID>x</CustomerID>trailing<CustomerID>y</CustomerID></Feedback>", false,
         true, 0, "y"},
    };
    for (const ProfileCase& c : cases) {
        PhoneHomeXmlMgr handler;
        XmlParser parser(&handler);
        ASSERT_EQ(0, parser.parseString(c.xml)) << c.xml;
        EXPECT_EQ(c.disabled, handler.GetServiceDisable()) << c.xml;
        EXPECT_EQ(c.includeCrash, handler.GetIncludeCrashReport()) << c.xml;
        EXPECT_EQ(c.feedbackInterval, handler.GetFeedbackInterval()) << c.xml;
        EXPECT_EQ(c.customerId, handler.GetCustomerID()) << c.xml;
    }
}

TEST_F(PluginShellTest, TextAfterAnEndTagChangesNothing) {
    PhoneHomeXmlMgr handler;
    handler.addElement("ServiceDisable");
    handler.endElement("ServiceDisable");
    handler.setElementValue("true");
    EXPECT_FALSE(handler.GetServiceDisable());
}

TEST_F(PluginShellTest, DisableMarkerIsSeenOnlyWhenItCanBeOpened) {
    TempDir dir;
    EXPECT_TRUE(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.path()));
    ASSERT_TRUE(WriteFile(dir / "cefdisable", ""));
    EXPECT_FALSE(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.path()));
    if (geteuid() != 0) {  // root opens any file
        chmod((dir / "cefdisable").c_str(), 0);
        EXPECT_TRUE(CPhoneHomeUtility::IsPhoneHomeEnabled(dir.path()));
    }
}

}  // namespace
