// CXMLService: refuses everything that is not well-formed, reads the tree,
// and writes text that parses back to the same tree.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <ferrocore/CException.h>
#include <ferrocore/CXMLService.h>

namespace ferrocore {
namespace {

std::string text(const CStringRef& s) { return s ? s->utf8() : std::string("<null>"); }

TEST(XMLServiceTest, TakesWellFormedTextButNoDocumentTypesOrDeepNesting) {
    std::string deep;  // as deep as allowed
    for (std::size_t i = 0; i < kMaxXMLDepth; ++i) deep = "<a>" + deep + "</a>";
    const std::string good[] = {"<log msg=\"a &lt; b\"/>",
                                "<log msg=\"&amp;amp; &#x41;&#65;\"/>",
                                "<log msg='single \"quoted\"'/>",
                                "<a><!-- note --><?pi x?><![CDATA[<raw>]]></a>",
                                "<\xE6\x97\xA5 \xE6\x9C\xAC=\"x\"/>",
                                deep,
                                "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?>\n<a>\xC3\xBC</a>\n"};
    for (const std::string& xml : good) {
        EXPECT_TRUE(CXMLService::isWellFormed(xml)) << xml;
        EXPECT_NO_THROW(CXMLService::create(xml)) << xml;
    }
    const std::string bad[] = {
        "",
        "   ",
        "plain text",
        "<a>",
        "<a><b></a></b>",
        "<a x=\"1\" x=\"2\"/>",
        "<a x=1/>",
        "<a x=\"<\"/>",
        "<log msg=\"a & b\"/>",
        "<log msg=\"&undefined;\"/>",
        "<a>&nbsp;</a>",
        "<a>\xC3</a>",
        "<a x=\"\xFF\"/>",
        "<a>\x01</a>",
        "<a>&#1;</a>",
        "<a/><b/>",
        "<a/>junk",
        "<?xml version=\"1.0\"?><?xml version=\"1.0\"?><a/>",
        " <?xml version=\"1.0\"?><a/>",
        "<1a/>",
        "<a></A>",
        "<b>" + deep + "</b>",
        "<?xml version=\"1.0\"?><!DOCTYPE l [<!ENTITY a \"aaaa\"><!ENTITY b \"&a;&a;&a;\">]><l>&b;</l>",
        "<!DOCTYPE a SYSTEM \"file:///etc/passwd\"><a/>",
    };
    for (const std::string& xml : bad) {
        EXPECT_FALSE(CXMLService::isWellFormed(xml)) << xml;
        EXPECT_THROW(CXMLService::create(xml), CParamException) << xml;
    }
    try {
        CXMLService::create("<a>\n<b></a>");
        ADD_FAILURE() << "no exception";
    } catch (const CParamException& e) {
        EXPECT_EQ(e.message(), "CXMLService: text is not well-formed XML, line 2, column 5: mismatched tag");
    }
}

TEST(XMLServiceTest, ReadsNamesAttributesChildrenAndText) {
    CXMLServiceRef doc = CXMLService::create(
        "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"yes\"?>\n"
        "<logs tms=\"1.5\" pnm=\"a&amp;b\">\n"
        "<mrk kind=\"begin\" what=\"log-session\"/>\n"
        "<log msg=\"hello &lt;world&gt;\">text<i>inner</i> more</log>\n"
        "</logs>\n");
    EXPECT_TRUE(doc->isDocument() && doc->HasXMLHeader());
    ASSERT_EQ(doc->childCount(), 1u);
    CXMLServiceRef logs = doc->childAtIndex(0);
    EXPECT_EQ(logs->nodeName(), "logs");
    EXPECT_FALSE(doc->childAtIndex(1));
    EXPECT_EQ(text(logs->getAttributeValueAsString("pnm")), "a&b");
    EXPECT_FALSE(logs->getAttributeValueAsString("missing"));
    ASSERT_EQ(logs->childCount(), 2u);
    EXPECT_EQ((std::vector<CXMLAttributePair>{{"kind", "begin"}, {"what", "log-session"}}),
              logs->childAtIndex(0)->attributes());
    CXMLServiceRef log = logs->childAtIndex(1);
    EXPECT_EQ(text(log->getAttributeValueAsString("msg")), "hello <world>");
    EXPECT_EQ(log->textContent(), "text more");
    EXPECT_EQ(log->childAtIndex(0)->textContent(), "inner");

    EXPECT_FALSE(CXMLService::create("<mrk/>")->HasXMLHeader());
}

TEST(XMLServiceTest, AddAttributeKeepsOrderAndReplacesInPlace) {
    CXMLServiceRef doc = CXMLService::create("<mrk/>");
    CXMLServiceRef mark = doc->childAtIndex(0);
    mark->addAttribute({"tms", "1.000"});
    mark->addAttribute({"what", "scope \"a\" & <b>\n"});
    mark->addAttribute({"tms", "2.000"});
    EXPECT_EQ(doc->xmlString(), "<mrk tms=\"2.000\" what=\"scope &quot;a&quot; &amp; &lt;b&gt;&#10;\"/>");
    EXPECT_THROW(mark->addAttribute({"bad name", "x"}), CParamException);
    EXPECT_THROW(mark->addAttribute({"", "x"}), CParamException);
    EXPECT_THROW(doc->addAttribute({"x", "y"}), CParamException);
    // Values that XML cannot carry still give well-formed output.
    mark->addAttribute({"msg", std::string("nul\0bell\x07", 9)});
    EXPECT_TRUE(CXMLService::isWellFormed(doc->xmlString()));
}

// Parses, writes and parses again; the two trees must match.
void expectSameTree(const CXMLServiceRef& a, const CXMLServiceRef& b) {
    EXPECT_EQ(a->nodeName(), b->nodeName());
    EXPECT_EQ(a->attributes(), b->attributes());
    EXPECT_EQ(a->textContent(), b->textContent());
    ASSERT_EQ(a->childCount(), b->childCount());
    for (std::size_t i = 0; i < a->childCount(); ++i) expectSameTree(a->childAtIndex(i), b->childAtIndex(i));
}

TEST(XMLServiceTest, OutputParsesBackToTheSameTree) {
    const char* const documents[] = {
        "<?xml version=\"1.0\" standalone=\"no\"?><a x=\"&#9;tab&#10;nl&#13;cr\" y='&apos;\"'>t&amp;<b/>\r\nz</a>",
        "<a><![CDATA[x < y && ]]>]]&gt;</a>",
        "<r>\xF0\x9F\x8E\x89 <s a=\"&#x10FFFF;\"/></r>",
    };
    for (const char* xml : documents) {
        CXMLServiceRef first = CXMLService::create(xml);
        const std::string written = first->xmlString();
        CXMLServiceRef second;
        ASSERT_NO_THROW(second = CXMLService::create(written)) << written;
        EXPECT_EQ(first->HasXMLHeader(), second->HasXMLHeader());
        expectSameTree(first, second);
        EXPECT_EQ(second->xmlString(), written);
    }
    EXPECT_EQ(CXMLService::create("<?xml version=\"1.0\" encoding=\"latin1\" standalone=\"no\"?><a/>")->xmlString(),
              "<?xml version=\"1.0\" encoding=\"UTF-8\" standalone=\"no\"?><a/>");
}

TEST(XMLServiceTest, ParsesOnManyThreadsAtOnce) {
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&failures, t] {
            for (int i = 0; i < 500; ++i) {
                const std::string n = std::to_string(t * 1000 + i), good = "<log n=\"" + n + "\"/>";
                if (!CXMLService::isWellFormed(good) || CXMLService::isWellFormed("<log n=\"1\">") ||
                    text(CXMLService::create(good)->childAtIndex(0)->getAttributeValueAsString("n")) != n)
                    ++failures;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures, 0);
}

}  // namespace
}  // namespace ferrocore
