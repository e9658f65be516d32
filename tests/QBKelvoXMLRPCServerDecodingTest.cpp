// The XML-RPC layer on plain text: element extraction against ICU's regex, parameter decoding,
// the dispatch table with its fallbacks, the response documents and the request head.

#include <gtest/gtest.h>
#include <unicode/regex.h>

#include <random>

#include "support/BridgeServerFixture.h"
#include "support/LoopbackClient.h"

namespace {

using S = QBKelvoXMLRPCServer;

TEST(XMLTagTest, FindsWhatTheLazyPatternFinds) {
    // The reference: the literal pattern "<tag>(.+?)</tag>" in ICU, "." matching line ends.
    const auto lazyPatternContents = [](const std::string& tag, const std::string& text) {
        UErrorCode status = U_ZERO_ERROR;
        const auto input = icu::UnicodeString::fromUTF8(text);
        icu::RegexMatcher matcher(icu::UnicodeString::fromUTF8("<" + tag + ">(.+?)</" + tag + ">"), input,
                                  UREGEX_DOTALL, status);
        std::vector<std::string> contents;
        while (matcher.find(status)) matcher.group(1, status).toUTF8String(contents.emplace_back());
        return contents;
    };
    // Random texts of pieces that stress the shortest-run rule: tags of the name and of a longer
    // name that starts like it, lone "<", line breaks and a character outside the BMP.
    std::mt19937 random(986);
    for (const std::string tag : {"a", "value"}) {
        const std::vector<std::string> pieces{"<" + tag + ">", "</" + tag + ">", "</" + tag + "x>", "<", "/",
                                              ">", "x", "\r\n", "\xf0\x9f\x98\x80"};
        for (int round = 0; round < 3000; ++round) {
            std::string text;
            for (int count = random() % 9; count > 0; --count) text += pieces[random() % pieces.size()];
            EXPECT_EQ(S::getAllXMLTags(tag, text), lazyPatternContents(tag, text)) << text;
        }
    }
}

std::string num(const std::string& text, const std::string& type = "int") {
    return "<param><value><" + type + ">" + text + "</" + type + "></value></param>";
}
std::string str(const std::string& text) { return num(text, "string"); }
std::string call(std::string_view name, const std::string& params) {
    return methodCall(name, "<params>" + params + "</params>");
}

TEST(DispatchTest, ParametersAreDecodedAndFallBackWhenTooFew) {
    const auto commands = std::make_shared<FakeBridgeCommands>();
    const auto server = S::serverWithAddress(nullptr, 0, nullptr, commands);
    const std::pair<std::string, std::string> cases[] = {
        {call("connect", str("vpn.example") + str("443") + str(" 8080x")), "connect(vpn.example,443,8080)"},
        {call("connect", str("vpn.example") + num("443") + num("8080")), "connect(vpn.example,443,8080)"},
        {call("authorize", str("h") + num("7", "i4") + num("1")), "authorize(h,7,1)"},
        {call("connect", str("h") + num("443")), "connect(,0,0)"},  // too few: fallbacks
        {call("connectWithToken", str("h") + num("1") + num("1", "boolean") + str("tok")),
         "connectWithToken(,0,0,)"},  // a boolean drops out
        {call("connect", str("") + str("h") + num("1") + num("2")), "connect(h,1,2)"},  // so does ""
        {call("suspend", "<param><value>tok</value></param>"), "suspend()"},  // and a bare value
        {call("connectWithToken", num("42") + num("1") + num("2") + num("-7")), "connectWithToken(42,1,2,-7)"},
        {call("disconnect", str("a&amp;b") + str("t2")), "disconnect(a&amp;b)"},
        {call("connect", str("h") + num(" +12x") + num("99999999999")), "connect(h,12,2147483647)"},
        {call("connect", str("h") + num("-99999999999") + str("abc")), "connect(h,-2147483648,0)"},
        {methodCall("clientOS"), "clientOS()"},
    };
    for (const auto& [document, expected] : cases) {
        const auto decoded = S::decodeMethodCall(document);
        ASSERT_TRUE(decoded && server->performXMLMethod(decoded->name, decoded->params)) << document;
        EXPECT_EQ(commands->calls().back(), expected) << document;
    }
    // Every other method's name leads to its command as well: see the bridge test's table.
    EXPECT_EQ(S::serverWithAddress(nullptr, 0, nullptr)->performXMLMethod("state", {}), std::nullopt);
}

TEST(MethodResponseTest, DocumentsHaveExactBytes) {
    const std::string head = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<methodResponse>\r\n";
    const std::string tail = "\r\n</methodResponse>\r\n";
    const auto oneParam = [&](const std::string& value) {
        return head + "  <params>\n    <param>\r\n      <value>" + value +
               "</value>\r\n    </param>\r\n  </params>" + tail;
    };
    const std::pair<S::Value, std::string> cases[] = {
        {std::string("abc"), oneParam("<string>abc</string>")},
        {std::int64_t{1}, oneParam("<int>1</int>")},
        {std::string("a<b&c"), oneParam("<string>a<b&c</string>")},
        {std::int64_t{0x100000005}, oneParam("<int>5</int>")},
    };
    for (const auto& [value, document] : cases) EXPECT_EQ(S::methodResponseDocument({value}), document);
    EXPECT_EQ(S::methodResponseDocument({}), head + tail);
}

TEST(RequestHeadTest, LinesAndHeadersAreSplitAsSent) {
    // Any line break separates, a lone CR and U+2028 included; a no-break space is a blank.
    const auto head = S::parseRequestHead(
        "POST\t/vpn\xc2\xa0 HTTP/1.1\r\nHost: 127.0.0.1:986\r\n content-length :  12 \r\n"
        "No colon\nX: 1\xe2\x80\xa8X: 2\rZ:3\r\n\r\n");
    EXPECT_EQ(head.requestLine, (std::vector<std::string_view>{"POST", "/vpn", "", "HTTP/1.1"}));
    EXPECT_EQ(head.headers.size(), 5u);
    EXPECT_EQ(head.header("Host"), " 127.0.0.1:986");
    EXPECT_EQ(head.header("content-length"), "  12 ");
    EXPECT_EQ(head.header("Content-Length"), std::nullopt);
    EXPECT_EQ(head.header("X"), " 2");
    EXPECT_EQ(head.header("Z"), "3");
}

}  // namespace
