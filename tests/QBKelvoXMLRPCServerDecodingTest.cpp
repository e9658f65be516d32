// The XML-RPC layer on plain text: element extraction, parameter decoding, the dispatch table
// with its fallbacks, and the exact response documents.

#include <gtest/gtest.h>
#include <unicode/regex.h>

#include <random>

#include "support/BridgeServerFixture.h"

namespace {

std::string str(std::string_view text) {
    return "<param><value><string>" + std::string(text) + "</string></value></param>";
}
std::string integer(std::string_view text) {
    return "<param><value><int>" + std::string(text) + "</int></value></param>";
}
std::string params(const std::string& inside) {
    return "<params>" + inside + "</params>";
}
std::string callDocument(std::string_view name, const std::string& paramsBlock = "") {
    return "<?xml version=\"1.0\"?><methodCall><methodName>" + std::string(name) + "</methodName>" +
           paramsBlock + "</methodCall>";
}

class DispatchTest : public ::testing::Test {
protected:
    // The command call a method call document leads to, or "refused".
    std::string callFor(const std::string& document) {
        const auto call = QBKelvoXMLRPCServer::decodeMethodCall(document);
        if (!call || !server->performXMLMethod(call->name, call->params)) return "refused";
        return commands->lastCall();
    }

    std::shared_ptr<FakeBridgeCommands> commands = std::make_shared<FakeBridgeCommands>();
    std::shared_ptr<QBKelvoXMLRPCServer> server =
        QBKelvoXMLRPCServer::serverWithAddress(nullptr, 0, nullptr, commands);
};

TEST(XMLTagTest, PatternRulesOfElementExtraction) {
    using S = QBKelvoXMLRPCServer;
    EXPECT_EQ(S::getXMLTag("a", "x<a>1</a><a>2</a>"), "1");
    EXPECT_EQ(S::getXMLTag("a", "<a>line\r\nbreak</a>"), "line\r\nbreak");
    EXPECT_EQ(S::getXMLTag("a", "<a></a>"), std::nullopt);           // empty: no content at all
    EXPECT_EQ(S::getXMLTag("a", "<a></a><a>z</a>"), "</a><a>z");     // shortest run of one or more
    EXPECT_EQ(S::getXMLTag("a", "<a x=\"1\">v</a>"), std::nullopt);  // attributes: not found
    EXPECT_EQ(S::getXMLTag("a", "<A>v</A>"), std::nullopt);
    EXPECT_EQ(S::getXMLTag("a", "<a>&amp;\xc3\xa9</a>"), "&amp;\xc3\xa9");
    EXPECT_EQ(S::getXMLTag("abc", "<abc>v</abc>"), "v");  // a tag outside the fixed set
    EXPECT_EQ(S::getAllXMLTags("p", "<p>1</p> <p>2</p><q>x</q><p>3</p>"),
              (std::vector<std::string>{"1", "2", "3"}));
    EXPECT_TRUE(S::getAllXMLTags("p", "nothing").empty());
}

// Contents found by the literal pattern "<tag>(.+?)</tag>" (ICU, "." matching line ends): the
// reference the extraction must agree with, whatever pattern it runs.
std::vector<std::string> lazyPatternContents(const std::string& tag, const std::string& text) {
    UErrorCode status = U_ZERO_ERROR;
    const auto source = icu::UnicodeString::fromUTF8("<" + tag + ">(.+?)</" + tag + ">");
    std::unique_ptr<icu::RegexPattern> pattern(
        icu::RegexPattern::compile(source, UREGEX_DOTALL, status));
    const auto input = icu::UnicodeString::fromUTF8(text);
    std::unique_ptr<icu::RegexMatcher> matcher(pattern->matcher(input, status));
    std::vector<std::string> contents;
    while (matcher->find(status)) {
        contents.emplace_back();
        matcher->group(1, status).toUTF8String(contents.back());
    }
    return contents;
}

TEST(XMLTagTest, FindsWhatTheLazyPatternFinds) {
    // Random texts built from pieces that stress the shortest-run rule: tags of the name and of
    // a longer name that starts like it, lone "<", line breaks and a character outside the BMP.
    std::mt19937 random(986);
    for (const std::string tag : {"a", "value"}) {
        const std::vector<std::string> pieces{
            "<" + tag + ">", "</" + tag + ">",  "</" + tag + "x>", "<", "/", ">", "x",
            "\r\n",          "\xf0\x9f\x98\x80"};
        for (int round = 0; round < 3000; ++round) {
            std::string text;
            for (int count = random() % 9; count > 0; --count) {
                text += pieces[random() % pieces.size()];
            }
            const auto expected = lazyPatternContents(tag, text);
            EXPECT_EQ(QBKelvoXMLRPCServer::getAllXMLTags(tag, text), expected) << text;
            const auto first = QBKelvoXMLRPCServer::getXMLTag(tag, text);
            EXPECT_EQ(first, expected.empty() ? std::nullopt : std::optional(expected.front()))
                << text;
        }
    }
}

TEST_F(DispatchTest, ParametersAreDecodedAndFallBackWhenTooFew) {
    struct Case {
        const char* property;
        std::string document;
        std::string call;
    };
    const Case cases[] = {
        {"string port",
         callDocument("connect", params(str("vpn.example") + str("443") + str("8080"))),
         "connect(vpn.example,443,8080)"},
        {"int port",
         callDocument("connect", params(str("vpn.example") + integer("443") + integer("8080"))),
         "connect(vpn.example,443,8080)"},
        {"i4 port",
         callDocument("authorize",
                      params(str("h") + "<param><value><i4>7</i4></value></param>" + integer("1"))),
         "authorize(h,7,1)"},
        {"too few params", callDocument("connect", params(str("h") + integer("443"))),
         "connect(,0,0)"},
        {"boolean drops out",
         callDocument("connectWithToken",
                      params(str("h") + integer("1") +
                             "<param><value><boolean>1</boolean></value></param>" + str("tok"))),
         "connectWithToken(,0,0,)"},
        {"empty string drops out",
         callDocument("connect", params(str("") + str("h") + integer("1") + integer("2"))),
         "connect(h,1,2)"},
        {"value without type drops out",
         callDocument("suspend", params("<param><value>tok</value></param>")), "suspend()"},
        {"int where a string belongs",
         callDocument("connectWithToken",
                      params(integer("42") + integer("1") + integer("2") + integer("-7"))),
         "connectWithToken(42,1,2,-7)"},
        {"entities stay", callDocument("disconnect", params(str("a&amp;b"))),
         "disconnect(a&amp;b)"},
        {"extra params ignored", callDocument("disconnect", params(str("t1") + str("t2"))),
         "disconnect(t1)"},
        {"int text scanned and clamped",
         callDocument("connect", params(str("h") + integer(" +12x") + integer("99999999999"))),
         "connect(h,12,2147483647)"},
        {"negative clamp",
         callDocument("connect", params(str("h") + integer("-99999999999") + integer("x"))),
         "connect(h,-2147483648,0)"},
        {"string port without a number",
         callDocument("connect", params(str("h") + str("abc") + str(" 9 "))), "connect(h,0,9)"},
        {"no params element", callDocument("clientOS"), "clientOS()"},
        {"empty params element", callDocument("clientOS", "<params></params>"), "clientOS()"},
        {"multi-line string", callDocument("disconnect", params(str("a\r\nb"))),
         "disconnect(a\r\nb)"},
        {"unknown method", callDocument("clientos"), "refused"},
        {"method name with blank", callDocument("state "), "refused"},
    };
    for (const auto& c : cases) EXPECT_EQ(callFor(c.document), c.call) << c.property;
}

TEST_F(DispatchTest, EveryMethodNameReachesItsCommand) {
    const std::pair<const char*, const char*> names[] = {
        {"clientOS", "clientOS()"},
        {"clientVersion", "clientVersion()"},
        {"authorize", "authorize(,0,0)"},
        {"connect", "connect(,0,0)"},
        {"connectWithToken", "connectWithToken(,0,0,)"},
        {"disconnect", "disconnect()"},
        {"suspend", "suspend()"},
        {"resume", "resume()"},
        {"state", "state()"},
        {"connectionTime", "connectionTime()"},
        {"connectionTimeDisplayable", "connectionTimeDisplayable()"},
        {"trafficRates", "trafficRates()"},
        {"trafficTotals", "trafficTotals()"},
    };
    for (const auto& [name, call] : names) EXPECT_EQ(callFor(callDocument(name)), call) << name;
}

TEST_F(DispatchTest, ResultTypesFollowTheCommand) {
    EXPECT_EQ(server->performXMLMethod("authorize", {}),
              QBKelvoXMLRPCServer::Value(std::int64_t{1}));
    EXPECT_EQ(server->performXMLMethod("state", {}),
              QBKelvoXMLRPCServer::Value(std::string("abc")));
    const auto noCommands = QBKelvoXMLRPCServer::serverWithAddress(nullptr, 0, nullptr);
    EXPECT_EQ(noCommands->performXMLMethod("state", {}), std::nullopt);
}

TEST(MethodResponseTest, DocumentsHaveExactBytes) {
    using S = QBKelvoXMLRPCServer;
    const std::string head = "<?xml version=\"1.0\" encoding=\"utf-8\" ?>\r\n<methodResponse>\r\n";
    const std::string tail = "\r\n</methodResponse>\r\n";
    const auto oneParam = [&](const std::string& value) {
        return head + "  <params>\n    <param>\r\n      <value>" + value +
               "</value>\r\n    </param>\r\n  </params>" + tail;
    };
    const auto abc = S::methodResponseDocument({std::string("abc")});
    EXPECT_EQ(abc, oneParam("<string>abc</string>"));
    EXPECT_EQ(abc.size(), 172u);
    const auto one = S::methodResponseDocument({std::int64_t{1}});
    EXPECT_EQ(one, oneParam("<int>1</int>"));
    EXPECT_EQ(one.size(), 164u);
    const auto empty = S::methodResponseDocument({});
    EXPECT_EQ(empty, head + tail);
    EXPECT_EQ(empty.size(), 80u);
    EXPECT_EQ(S::methodResponseDocument({std::string("a<b&c")}),
              oneParam("<string>a<b&c</string>"));
    EXPECT_EQ(S::methodResponseDocument({std::int64_t{0x100000005}}), oneParam("<int>5</int>"));
}

TEST(HTTPReplyTest, FixedHeadersReplaceGivenOnesAndLengthCountsBytes) {
    const auto reply =
        QBKelvoXMLRPCServer::httpReply(200, {{"Server", "other"}, {"X-Extra", "1"}}, "\xc3\xa9");
    EXPECT_TRUE(reply.starts_with("HTTP/1.1 200 OK\r\n"));
    EXPECT_TRUE(reply.ends_with("\r\n\r\n\xc3\xa9"));
    EXPECT_NE(reply.find("\r\nContent-Length: 2\r\n"), std::string::npos);
    EXPECT_NE(reply.find("\r\nServer: MacTunnelwright/1.1\r\n"), std::string::npos);
    EXPECT_NE(reply.find("\r\nX-Extra: 1\r\n"), std::string::npos);
    EXPECT_EQ(reply.find("other"), std::string::npos);
    EXPECT_EQ(QBKelvoXMLRPCServer::reasonPhrase(404), "Not found");
}

TEST(RequestHeadTest, LinesAndHeadersAreSplitAsSent) {
    using Views = std::vector<std::string_view>;
    const auto head = QBKelvoXMLRPCServer::parseRequestHead(
        "POST\t/vpn  HTTP/1.1\r\nHost: 127.0.0.1:986\r\n content-length :  12 \r\n"
        "No colon\r\nX: 1\nX: 2\r\n\r\n");
    EXPECT_EQ(head.requestLine, (Views{"POST", "/vpn", "", "HTTP/1.1"}));
    EXPECT_EQ(head.header("Host"), " 127.0.0.1:986");
    EXPECT_EQ(head.header("content-length"), "  12 ");
    EXPECT_EQ(head.header("Content-Length"), std::nullopt);
    EXPECT_EQ(head.header("X"), " 2");
    EXPECT_EQ(head.headers.size(), 4u);
    // Any line break separates, including U+2028 and a lone CR; a no-break space is a blank.
    const auto unicode =
        QBKelvoXMLRPCServer::parseRequestHead("OPTIONS\xc2\xa0/vpn\xe2\x80\xa8Y:1\rZ:2\r\n\r\n");
    EXPECT_EQ(unicode.requestLine, (Views{"OPTIONS", "/vpn"}));
    EXPECT_EQ(unicode.header("Y"), "1");
    EXPECT_EQ(unicode.header("Z"), "2");
}

}  // namespace
