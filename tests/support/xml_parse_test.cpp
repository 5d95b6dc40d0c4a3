#include "support/xml/xml.hpp"

#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace {

using QOB::Xml::Error;
using QOB::Xml::ErrorText;
using QOB::Xml::Parse;
using QOB::Xml::RenderLength;
using QOB::Xml::RenderToString;

TEST(XmlParse, ReportsWhereAndWhyItStopped) {
    struct Failure {
        const char* text;
        Error error;
        int row, column;
    };
    const Failure cases[] = {
        {"", Error::NoXmlData, 1, 1},
        {" \r\n\t", Error::NoXmlData, 2, 2},
        {"<Other><Manifest/></Other>", Error::FirstTagNotFound, 1, 27},
        {"<?xml version=\"1.0\"?>\n<!-- only this -->", Error::NoElements, 2, 19},
        {"<Manifest>\n  <a>x</b>\n</Manifest>", Error::UnmatchedEndTag, 2, 7},
        {"<Manifest><a>", Error::UnmatchedEndTag, 1, 14},
        {"<Manifest>&nbsp;</Manifest>", Error::UnknownEntity, 1, 11},
        {"<Manifest>a & b</Manifest>", Error::UnknownEntity, 1, 13},
        {"<Manifest>&#0;</Manifest>", Error::UnknownEntity, 1, 11},
        {"<Manifest a='&#256;'/>", Error::CharacterCodeAbove255, 1, 14},
        {"<Manifest>&#99999999999999999999999;</Manifest>", Error::CharacterCodeAbove255, 1, 11},
        {"<Manifest>< a/></Manifest>", Error::MissingStartTagName, 1, 12},
        {"<Manifest></></Manifest>", Error::MissingEndTagName, 1, 13},
        {"<Manifest><![CDATA[ open", Error::UnmatchedClearTagEnd, 1, 11},
        {"text<Manifest/>", Error::UnexpectedToken, 1, 1},
        {"<Manifest a=1/>", Error::UnexpectedToken, 1, 13},
    };
    for (const Failure& c : cases) {
        SCOPED_TRACE(c.text);
        const auto result = Parse(c.text, "Manifest");
        EXPECT_EQ(result.error, c.error) << ErrorText(result.error);
        EXPECT_EQ(std::pair(result.row, result.column), std::pair(c.row, c.column));
        EXPECT_TRUE(result.element.IsEmpty());
    }
    EXPECT_STREQ(ErrorText(Error::UnmatchedEndTag), "Error: Unmatched end tag");
    EXPECT_STREQ(ErrorText(21), "Unknown");
}

TEST(XmlParse, StopsAtItsBudget) {
    struct Budget {
        const char* text;
        QOB::Xml::Limits limits;
        bool parses;
        int column; // where it stopped when it does not
    };
    const Budget cases[] = {
        {"<Manifest><a/><b/></Manifest>", {3, 2}, true, 0},
        {"<Manifest><a/><b/></Manifest>", {2, 9}, false, 15},
        {"<Manifest><a><b/></a></Manifest>", {9, 2}, false, 14},
        {"<Manifest><a><b/></a></Manifest>", {9, 3}, true, 0},
        {"<x/><Manifest/>", {1, 9}, false, 5}, // elements outside the one asked for count too
    };
    for (const Budget& c : cases) {
        SCOPED_TRACE(c.text);
        const auto result = Parse(c.text, "Manifest", c.limits);
        EXPECT_EQ(result.error, c.parses ? Error::None : Error::UnexpectedToken);
        if (!c.parses) {
            EXPECT_EQ(result.column, c.column);
        }
    }
}

TEST(XmlParse, ReadsTheSupportedSyntax) {
    const std::string text = "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
                             "<!DOCTYPE Manifest [ <!ELEMENT Manifest ANY> ]>\n"
                             "<Skipped><Manifest/></Skipped>\n"
                             "<Manifest a='x \"y\"' b = \"&lt;&#65;&#x42;&apos;&gt;\">\n"
                             "  <!-- a <comment> -->\n"
                             "  <Text>one &amp; <?pi ?>two<![CDATA[ <raw> &amp; ]]></Text>\n"
                             "  <Empty></Empty><Spaces>   </Spaces><Bytes>&#233;\xC3\xA9</Bytes>\n"
                             "  <Mixed>a<x/> <y/>b</Mixed>\n"
                             "</Manifest>\n"
                             "<Manifest>second</Manifest>";
    const auto result = Parse(text, "Manifest");
    ASSERT_EQ(result.error, Error::None) << ErrorText(result.error);
    EXPECT_EQ(result.row, 10);
    const auto root = result.element;
    EXPECT_STREQ(root.Attribute("a"), "x \"y\"");
    EXPECT_STREQ(root.Attribute("b"), "<AB'>");
    EXPECT_STREQ(root.Child("Text").Text(), "one & two <raw> &amp; ");
    EXPECT_EQ(root.Child("Spaces").Text(), nullptr);
    EXPECT_STREQ(root.Child("Bytes").Text(), "\xE9\xC3\xA9");
    EXPECT_STREQ(root.Child("Mixed").Text(), "ab");
    EXPECT_EQ(root.ChildCount(), 5U);
    EXPECT_EQ(RenderToString(root.Child("Text")),
              "<Text>one &amp; two &lt;raw&gt; &amp;amp; </Text>");
}

TEST(XmlParse, SurvivesHostileDepth) {
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
    QOB::Xml::Node inner = result.element;
    for (std::size_t i = 0; i < depth / 2; ++i) {
        inner = inner.ChildAt(0);
    }
    QOB::Xml::Node(result.element).ChildAt(0).Remove();
    EXPECT_STREQ(inner.ChildAt(0).Name(), "a");
}

} // namespace
