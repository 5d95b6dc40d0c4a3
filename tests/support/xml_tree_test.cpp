#include "support/xml/xml.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace QOB::Xml;

TEST(XmlTree, EmptyHandleAnswersNothing) {
    Node none;
    EXPECT_TRUE(none.Name() == nullptr && none.Text() == nullptr && !none.Attribute("a"));
    EXPECT_EQ(none.ChildCount(), 0U);
    std::size_t from = 3;
    EXPECT_TRUE(none.FindChild("a", &from).IsEmpty());
    EXPECT_EQ(from, 3U);
    EXPECT_TRUE(none.Child("a").ChildAt(0).ChildWithAttribute("a", "b", "c").Parent().IsEmpty());
    EXPECT_TRUE(none.AppendChild("a").IsEmpty());
    EXPECT_FALSE(none.SetText("x") || none.SetAttribute("a", "b") || none.Remove());
    EXPECT_EQ(RenderToString(none), "");
}

TEST(XmlTree, FindsChildrenByNameAttributeAndPosition) {
    const Node root =
        Parse("<m><a i='0'/><B/><a i='1' k='x'/><b/><a i='2' k='y'/></m>", "m").element;
    EXPECT_STREQ(root.Child("a", 2).Attribute("i"), "2");
    std::vector<std::string> found;
    for (std::size_t i = 0; Node a = root.FindChild("a", &i); ++i) {
        found.push_back(std::to_string(i) + a.Attribute("i"));
    }
    EXPECT_EQ(found, (std::vector<std::string>{"00", "21", "42"}));
    std::size_t from = 2;
    EXPECT_EQ(root.FindChildIgnoreCase("B", &from), root.ChildAt(3));
    EXPECT_EQ(from, 3U);
    EXPECT_TRUE(root.FindChild("B", &(++from)).IsEmpty());
    EXPECT_EQ(root.ChildWithAttribute("a", "k", "y"), root.ChildAt(4));
    EXPECT_TRUE(root.ChildWithAttribute("b", "k", "x").IsEmpty());
}

TEST(XmlTree, EditsRenderAsExpected) {
    Node root = CreateDocument("Manifest");
    root.SetAttribute("a", "1");
    root.SetAttribute("b", "2");
    root.SetAttribute("a", "<&\"'>"); // replaced in place, not appended
    const std::string head = "<Manifest a=\"&lt;&amp;&quot;&apos;&gt;\" b=\"2\"";
    EXPECT_EQ(RenderToString(root), head + "/>");
    Node file = root.AppendChild("File");
    file.AppendChild("RawPath").SetText("x&y");
    Node lccs = file.AppendChild("LCCs");
    root.AppendChild("Version").SetText("1");
    root.SetText("t");
    EXPECT_EQ(RenderToString(root), head + ">t<File><RawPath>x&amp;y</RawPath><LCCs/></File>"
                                           "<Version>1</Version></Manifest>");
    root.SetText("");
    // The removed element lives on through its handle, detached.
    EXPECT_TRUE(file.Remove());
    EXPECT_FALSE(file.Remove());
    EXPECT_TRUE(file.Parent().IsEmpty());
    EXPECT_EQ(lccs.Parent(), file);
    EXPECT_EQ(RenderToString(root), head + "><Version>1</Version></Manifest>");
    EXPECT_TRUE(root.ChildAt(0).Remove());
    EXPECT_EQ(RenderToString(root), head + "/>");
    // A child outlives its dropped parent, unlinked.
    Node child = CreateDocument("p").AppendChild("c");
    EXPECT_TRUE(child.Parent().IsEmpty());
    EXPECT_STREQ(child.Name(), "c");
}

TEST(XmlTree, RoundTripsKeepTheTree) {
    const std::string inputs[] = {
        "<Manifest><File><RawPath>IMG_1.CR3</RawPath><LCCs><LCCPath LccID=\"a&amp;b\">"
        "Quillmarsh/Settings1680/IMG_1.CR3.a.lcc</LCCPath></LCCs></File></Manifest>",
        "<?xml version=\"1.0\"?>\n<Manifest>\n\t<File>\n\t\t<RawPath> a </RawPath>\n\t</File>\n"
        "</Manifest>",
        "<Manifest x='&apos;&quot;' y=\"\t\"><a><![CDATA[ ]]><b/></a><c>&#10;</c>mixed<d>"
        "&#9;x<e/></d></Manifest>",
    };
    const std::string rendered[] = {
        inputs[0], "<Manifest><File><RawPath> a </RawPath></File></Manifest>",
        "<Manifest x=\"&apos;&quot;\" y=\"\t\">mixed<a>&#32;<b/></a><c>&#10;</c><d>\tx"
        "<e/></d></Manifest>"};
    for (int i = 0; i < 3; ++i) {
        SCOPED_TRACE(inputs[i]);
        const Node root = Parse(inputs[i], "Manifest").element;
        const std::string once = RenderToString(root);
        EXPECT_EQ(once, rendered[i]);
        for (const std::string& text : {once, RenderToString(root, true)}) {
            EXPECT_EQ(RenderToString(Parse(text, "Manifest").element), once);
        }
        // Into a caller's buffer: one byte short writes an empty string.
        std::vector<char> buffer(once.size() + 1, 'x');
        EXPECT_EQ(RenderLength(root), once.size());
        EXPECT_EQ(Render(root, buffer.data(), once.size()), 0U);
        EXPECT_EQ(buffer[0], '\0');
        EXPECT_EQ(Render(root, buffer.data(), buffer.size()), once.size());
        EXPECT_EQ(buffer.data(), once);
    }
    EXPECT_EQ(RenderToString(Parse(inputs[1], "Manifest").element, true),
              "<Manifest>\n\t<File>\n\t\t<RawPath> a </RawPath>\n\t</File>\n</Manifest>");
}

TEST(XmlTree, SurvivesHostileDepth) {
    const std::size_t depth = 100000;
    std::string open, close;
    for (std::size_t i = 0; i < depth; ++i) {
        open += "<a>";
        close += "</a>";
    }
    // Unclosed: the parse fails and throws the partial tree away.
    EXPECT_EQ(Parse(open + "x", "a").error, Error::UnmatchedEndTag);
    const std::string deep = open + "x" + close;
    const auto result = Parse(deep, "a");
    ASSERT_EQ(result.error, Error::None);
    EXPECT_EQ(RenderToString(result.element), deep);
    EXPECT_EQ(RenderLength(result.element, true), RenderToString(result.element, true).size());
    // Holding a handle deep inside keeps that subtree alone through the teardown.
    Node inner = result.element;
    for (std::size_t i = 0; i < depth / 2; ++i) {
        inner = inner.ChildAt(0);
    }
    Node(result.element).ChildAt(0).Remove();
    EXPECT_STREQ(inner.ChildAt(0).Name(), "a");
}

} // namespace
