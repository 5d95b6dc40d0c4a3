#include "support/xml/xml.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using namespace QOB::Xml;

const char* const kManifest =
    "<Manifest><Platform>0</Platform><File><RawPath>IMG_1.CR3</RawPath><LCCs>"
    "<LCCPath LccID=\"a&amp;b\">Quillmarsh/Settings1680/IMG_1.CR3.a.lcc</LCCPath></LCCs>"
    "</File><Version>1</Version></Manifest>";

std::string Reparsed(const std::string& text) {
    const auto result = Parse(text, "Manifest");
    EXPECT_EQ(result.error, Error::None) << ErrorText(result.error) << " in " << text;
    return RenderToString(result.element);
}

TEST(XmlTree, EmptyHandleAnswersNothing) {
    const Node none;
    EXPECT_EQ(none.Name(), nullptr);
    EXPECT_EQ(none.Text(), nullptr);
    EXPECT_EQ(none.Attribute("a"), nullptr);
    EXPECT_EQ(none.AttributeNameAt(0), nullptr);
    EXPECT_EQ(none.ChildCount(), 0U);
    EXPECT_EQ(none.ChildCount("a"), 0U);
    std::size_t from = 3;
    EXPECT_TRUE(none.FindChild("a", &from).IsEmpty());
    EXPECT_EQ(from, 3U);
    EXPECT_TRUE(none.Child("a").ChildAt(0).ChildWithAttribute("a", "b", "c").Parent().IsEmpty());
    Node edited = none;
    EXPECT_TRUE(edited.AppendChild("a").IsEmpty());
    EXPECT_FALSE(edited.SetText("x"));
    EXPECT_FALSE(edited.SetAttribute("a", "b"));
    EXPECT_FALSE(edited.Remove());
    EXPECT_EQ(RenderLength(none), 0U);
    char buffer[4] = "xyz";
    EXPECT_EQ(Render(none, buffer, sizeof buffer), 0U);
    EXPECT_STREQ(buffer, "");
}

TEST(XmlTree, FindsChildrenByNameAttributeAndPosition) {
    const Node root =
        Parse("<m><a i='0'/><B/><a i='1' k='x'/><b/><a i='2' k='y'/></m>", "m").element;
    EXPECT_EQ(root.ChildCount(), 5U);
    EXPECT_EQ(root.ChildCount("a"), 3U);
    EXPECT_EQ(root.ChildCount("b"), 1U);
    EXPECT_STREQ(root.Child("a", 2).Attribute("i"), "2");
    EXPECT_TRUE(root.Child("a", 3).IsEmpty());
    EXPECT_STREQ(root.ChildAt(1).Name(), "B");

    std::vector<std::string> found;
    for (std::size_t i = 0; Node a = root.FindChild("a", &i); ++i) {
        found.push_back(std::to_string(i) + a.Attribute("i"));
    }
    EXPECT_EQ(found, (std::vector<std::string>{"00", "21", "42"}));

    std::size_t from = 0;
    EXPECT_EQ(root.FindChildIgnoreCase("b", &from), root.ChildAt(1));
    EXPECT_EQ(from, 1U);
    ++from;
    EXPECT_EQ(root.FindChildIgnoreCase("B", &from), root.ChildAt(3));
    EXPECT_EQ(from, 3U);
    EXPECT_TRUE(root.FindChild("B", &(++from)).IsEmpty());
    EXPECT_EQ(from, 4U);

    EXPECT_EQ(root.ChildWithAttribute("a", "k", "y"), root.ChildAt(4));
    EXPECT_TRUE(root.ChildWithAttribute("a", "k", "z").IsEmpty());
    EXPECT_TRUE(root.ChildWithAttribute("b", "k", "x").IsEmpty());
    EXPECT_EQ(root.ChildAt(2).Parent(), root);
    EXPECT_TRUE(EqualsIgnoreCase("LccID", "lccid"));
    EXPECT_FALSE(EqualsIgnoreCase("LccID", "lccid "));
}

TEST(XmlTree, EditsRenderAsExpected) {
    Node root = CreateDocument("Manifest");
    EXPECT_EQ(RenderToString(root), "<Manifest/>");
    root.SetAttribute("a", "1");
    root.SetAttribute("b", "2");
    root.SetAttribute("a", "<&\"'>");
    EXPECT_EQ(RenderToString(root), "<Manifest a=\"&lt;&amp;&quot;&apos;&gt;\" b=\"2\"/>");
    EXPECT_STREQ(root.AttributeNameAt(0), "a");

    Node file = root.AppendChild("File");
    file.AppendChild("RawPath").SetText("x&y");
    Node lccs = file.AppendChild("LCCs");
    root.AppendChild("Version").SetText("1");
    root.SetText("t");
    EXPECT_EQ(RenderToString(root), "<Manifest a=\"&lt;&amp;&quot;&apos;&gt;\" b=\"2\">t<File>"
                                    "<RawPath>x&amp;y</RawPath><LCCs/></File><Version>1</Version>"
                                    "</Manifest>");
    root.SetText("");
    EXPECT_EQ(root.Text(), nullptr);

    // The removed element lives on through its handle, detached.
    EXPECT_TRUE(file.Remove());
    EXPECT_FALSE(file.Remove());
    EXPECT_TRUE(file.Parent().IsEmpty());
    EXPECT_EQ(lccs.Parent(), file);
    EXPECT_EQ(RenderToString(root), "<Manifest a=\"&lt;&amp;&quot;&apos;&gt;\" b=\"2\">"
                                    "<Version>1</Version></Manifest>");
    EXPECT_EQ(root.ChildAt(0).Parent(), root);
    EXPECT_TRUE(root.ChildAt(0).Remove());
    EXPECT_EQ(RenderToString(root), "<Manifest a=\"&lt;&amp;&quot;&apos;&gt;\" b=\"2\"/>");

    // A child outlives its dropped parent, unlinked.
    Node child = CreateDocument("p").AppendChild("c");
    EXPECT_TRUE(child.Parent().IsEmpty());
    EXPECT_STREQ(child.Name(), "c");
}

TEST(XmlTree, RendersIntoCallerBuffers) {
    const Node root = Parse(kManifest, "Manifest").element;
    const std::size_t length = RenderLength(root);
    EXPECT_EQ(length, std::string(kManifest).size());
    std::vector<char> buffer(length + 1, 'x');
    EXPECT_EQ(Render(root, buffer.data(), length), 0U);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(Render(root, buffer.data(), buffer.size()), length);
    EXPECT_STREQ(buffer.data(), kManifest);
    EXPECT_EQ(RenderToString(root.Child("File").Child("LCCs")),
              "<LCCs><LCCPath LccID=\"a&amp;b\">Quillmarsh/Settings1680/IMG_1.CR3.a.lcc</LCCPath>"
              "</LCCs>");
}

TEST(XmlTree, RoundTripsKeepTheTree) {
    const std::string inputs[] = {
        kManifest,
        "<?xml version=\"1.0\"?>\n<Manifest>\n\t<File>\n\t\t<RawPath> a </RawPath>\n\t</File>\n"
        "</Manifest>",
        "<Manifest x='&apos;&quot;' y=\"\t\"><a><![CDATA[ ]]><b/></a><c>&#10;</c>mixed<d>"
        "&#9;x<e/></d></Manifest>",
    };
    for (const std::string& input : inputs) {
        SCOPED_TRACE(input);
        const Node root = Parse(input, "Manifest").element;
        const std::string once = RenderToString(root);
        EXPECT_EQ(Reparsed(once), once);
        const std::string formatted = RenderToString(root, true);
        EXPECT_EQ(Reparsed(formatted), once);
        EXPECT_EQ(once.find('\n'), std::string::npos);
    }
    EXPECT_EQ(RenderToString(Parse(inputs[1], "Manifest").element, true),
              "<Manifest>\n\t<File>\n\t\t<RawPath> a </RawPath>\n\t</File>\n</Manifest>");
    EXPECT_EQ(RenderToString(Parse(inputs[2], "Manifest").element),
              "<Manifest x=\"&apos;&quot;\" y=\"\t\">mixed<a>&#32;<b/></a><c>&#10;</c><d>\tx"
              "<e/></d></Manifest>");
}

TEST(XmlTree, SurvivesHostileDepth) {
    const std::size_t depth = 100000;
    std::string deep;
    for (std::size_t i = 0; i < depth; ++i) {
        deep += "<a>";
    }
    deep += "x";
    // Unclosed: the parse fails and throws the partial tree away.
    EXPECT_EQ(Parse(deep, "a").error, Error::UnmatchedEndTag);
    for (std::size_t i = 0; i < depth; ++i) {
        deep += "</a>";
    }
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
