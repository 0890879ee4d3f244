// The examples in docs/ are what the code produces, or are read by it as the text beside them says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "log_consumer/qv_json_obj_factory.h"
#include "log_consumer/qv_log_consumer_shared.h"
#include "log_consumer/qv_log_consumer_upload.h"
#include "pushpull_data/qv_pushpull_api.h"
#include "tests/support/files.h"

namespace {

constexpr auto kSomeComponent = static_cast<eQV_CMP_IDs_>(0x50000001);

std::string page(const std::string& name) {
  return test_support::read_file(std::string(DOCS_DIR "/") + name);
}

/// The code block that follows a mark such as "<!-- produced: get -->".
std::string block(const std::string& text, const std::string& mark) {
  const std::size_t at = text.find("<!-- " + mark + " -->\n```");
  if (at == std::string::npos) return "no block " + mark;
  const std::size_t begin = text.find('\n', text.find("```", at)) + 1;
  return text.substr(begin, text.find("\n```", begin) - begin);
}

std::string produced(const std::string& page_name, const std::string& name) {
  return block(page(page_name), "produced: " + name);
}

std::string read(const std::string& name) {
  return block(page("store-protocol.md"), "read: " + name);
}

/// Line ends spelled out, a line each.
std::string spelled_out(const std::string& bytes) {
  std::string text;
  for (std::size_t at = 0; at < bytes.size(); ++at) {
    if (bytes.compare(at, 2, "\r\n") == 0) {
      text += "\\r\\n\n";
      ++at;
    } else {
      text += bytes[at];
    }
  }
  return text.substr(0, text.size() - 1);
}

std::string request(eQV_CMP_IDs_ id, const std::string& function, const std::string& buffer) {
  QvPushpullApi api;
  api.queue_descriptor = 0;  // nothing to close
  return api.build_json_post_msg(id, function, buffer, nullptr, false, "", QV_CMPID_RESERVED,
                                 false);
}

template <typename View>
std::shared_ptr<View> view_of(const std::string& document) {
  return std::dynamic_pointer_cast<View>(QvJsonObjFactory::makeObj(document));
}

}  // namespace

TEST(Examples, TheUploadIsTheRequestThatIsSent) {
  constexpr std::uint32_t kSize = 1234;
  const RequestHead head =
      frameUpload({"AB12345678", "Debug", "1770109500", "debug_20260203_0905.txt.gz"},
                  "logs.example.com", kSize);
  EXPECT_EQ(spelled_out(head.header + head.body + "[1234 bytes of the file]" + kClosingDelimiter),
            produced("wire-format.md", "upload-request"));
}

TEST(Examples, TheTableOfKindsIsTheServices) {
  const std::string text = page("wire-format.md");
  for (const logConsumerType& kind : buildLogTypeTable()) {
    if (kind.filetype == kTestFileType) continue;  // its backslashes are escaped there
    const std::string server = kind.server == kRelaySrv ? "relay" : "data upload";
    EXPECT_THAT(text, testing::HasSubstr("| " + uploadName(kind.filetype) + " | " + kind.filepath +
                                         " | " + server + " |\n"));
  }
}

TEST(Examples, TheRequestsAreTheOnesThatAreSent) {
  EXPECT_EQ(request(QV_CMPID_LOG_CONSUMER, "register", "/log_consumer"),
            produced("store-protocol.md", "register"));
  EXPECT_EQ(
      request(QV_CMPID_LOG_CONSUMER, "subscribe", "/serverAssigned;/rgw;/interfaces;/system/clock"),
      produced("store-protocol.md", "subscribe"));
  EXPECT_EQ(request(QV_CMPID_LOG_CONSUMER, "get", "/rgw/aapState"),
            produced("store-protocol.md", "get"));
  EXPECT_EQ(request(kSomeComponent, "publish", R"({"rgw":{"aapState":"bound"}})"),
            produced("store-protocol.md", "publish"));
}

TEST(Examples, ARequestWithEverythingHasItAll) {
  struct mq_attr queue = {};
  queue.mq_maxmsg = 10;
  queue.mq_msgsize = 8192;
  QvPushpullApi api;
  api.queue_descriptor = 0;
  EXPECT_EQ(api.build_json_post_msg(kSomeComponent, "register", "/my_queue", &queue, true, "me",
                                    QV_CMPID_PUSHPULL, true),
            produced("store-protocol.md", "everything"));
}

TEST(Examples, TheServersDocumentIsRead) {
  const auto view = view_of<QvServerAssigned>(read("serverAssigned"));
  ASSERT_NE(nullptr, view);
  QvIdentities* identities = nullptr;
  QvSecurity* security = nullptr;
  QvToken* token = nullptr;
  std::string value;
  ASSERT_TRUE(view->getIdentities(&identities));
  ASSERT_TRUE(identities->getSysId(&value));
  EXPECT_EQ("AB12345678", value);
  ASSERT_TRUE(view->getSecurity(&security) && security->getNuvToken(&token));
  ASSERT_TRUE(token->getEncoded(&value));
  EXPECT_EQ("dG9rZW4=", value);
  EXPECT_TRUE(view->getUrlsSec(nullptr));
}

TEST(Examples, TheGatewaysDocumentIsRead) {
  const auto view = view_of<QvRgw>(read("rgw"));
  ASSERT_NE(nullptr, view);
  QvRgw::aapStateEnum state = QvRgw::kAapStateError;
  ASSERT_TRUE(view->getAapState(&state));
  EXPECT_EQ(QvRgw::kAapStateBound, state);
  QvRgwConfigSec* config = nullptr;
  int port = 0;
  ASSERT_TRUE(view->getConfigSec(&config) && config->getRelayServerPort(&port));
  EXPECT_EQ(8443, port);
}

TEST(Examples, TheInterfacesDocumentIsRead) {
  const auto view = view_of<QvInterfacesWrapper>(read("interfaces"));
  ASSERT_NE(nullptr, view);
  QvInterfaces wifi("interfaces");
  QvInterfaceWiFiStatus* section = nullptr;
  auto status = QvInterfaceWiFiStatus::kStatusError;
  ASSERT_EQ(0, view->searchQvInterfacesById(1, wifi));
  ASSERT_TRUE(wifi.getWifiStatus(&section) && section->getStatus(&status));
  EXPECT_EQ(QvInterfaceWiFiStatus::kStatusAssociated, status);
}

TEST(Examples, TheClocksDocumentIsRead) {
  const auto view = view_of<QvSystem>(read("system"));
  ASSERT_NE(nullptr, view);
  QvSystemClock* clock = nullptr;
  int offset = 0;
  bool enabled = false;
  ASSERT_TRUE(view->getClock(&clock));
  EXPECT_TRUE(clock->getOffset(&offset) && clock->getEnableDst(&enabled));
  EXPECT_EQ(-18000, offset);
  EXPECT_TRUE(enabled);
}
