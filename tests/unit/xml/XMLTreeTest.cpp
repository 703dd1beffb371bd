#include "xml/XMLNode.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

const char* kRequest =
    "<root><command>Play</command><paramList>"
    "<player id=\"1\" kind=\"audio\">A</player><Player id=\"2\">B</Player><player id=\"3\" kind=\"video\">C</player>"
    "</paramList></root>";

TEST(XMLTree, EmptyHandleAnswersEverythingWithNothing) {
    XMLNode none;
    EXPECT_TRUE(none.isEmpty());
    EXPECT_TRUE(XMLNode::emptyNode().isEmpty());
    XMLNode chained = none.getChildNode("a").getChildNode(3).getChildNodeByPath("b/c").getParentNode();
    EXPECT_TRUE(chained.isEmpty());
    EXPECT_EQ(chained.getName(), nullptr);
    EXPECT_EQ(chained.getText(), nullptr);
    EXPECT_EQ(chained.getAttribute("x"), nullptr);
    EXPECT_EQ(chained.getClear(), nullptr);
    EXPECT_EQ(chained.nChildNode() + chained.nText() + chained.nAttribute() + chained.nClear(), 0);
    EXPECT_FALSE(chained.isDeclaration());
    EXPECT_FALSE(chained.isAttributeSet("x"));
    EXPECT_TRUE(chained.deepCopy().isEmpty());
    EXPECT_EQ(chained.toString(), "");

    // Editing is silently ignored.
    EXPECT_TRUE(chained.addChild("x").isEmpty());
    chained.addText("t");
    chained.addAttribute("a", "b");
    chained.updateText("t");
    chained.deleteNodeContent();
    EXPECT_TRUE(chained.isEmpty());

    XMLNode root = XMLNode::parseString(kRequest, "root");
    EXPECT_EQ(root.getChildNode("paramList").getChildNode("missing").getChildNode("deeper").getText(), nullptr);
}

TEST(XMLTree, LookupsIgnoreCaseOfNames) {
    XMLNode root = XMLNode::parseString(kRequest, "root");
    ASSERT_FALSE(root.isEmpty());
    XMLNode params = root.getChildNode("PARAMLIST");
    EXPECT_EQ(params.nChildNode(), 3);
    EXPECT_EQ(params.nChildNode("player"), 3);
    EXPECT_STREQ(params.getChildNode("PLAYER", 1).getText(), "B");
    EXPECT_TRUE(params.getChildNode("player", 3).isEmpty());
    EXPECT_STREQ(params.getChildNode("player", 0).getAttribute("ID"), "1");
    EXPECT_TRUE(params.getChildNode(0).isAttributeSet("Kind"));
    EXPECT_STREQ(root.getChildNodeByPath("/paramlist//player/").getText(), "A");
    EXPECT_STREQ(root.getChildNodeByPath("paramList.Player", '.').getAttributeValue(1), "audio");
    EXPECT_TRUE(root.getChildNodeByPath("paramList/nothing").isEmpty());
}

TEST(XMLTree, IteratingLookupsResumeFromTheStoredIndex) {
    XMLNode params = XMLNode::parseString(kRequest, "root").getChildNode("paramList");
    std::string seen;
    int i = 0;
    for (XMLNode n = params.getChildNode("player", &i); !n.isEmpty(); n = params.getChildNode("player", &i))
        seen += n.getText();
    EXPECT_EQ(seen, "ABC");
    EXPECT_EQ(i, 3);

    i = 0;
    EXPECT_STREQ(params.getChildNodeWithAttribute("player", "kind", nullptr, &i).getText(), "A");
    EXPECT_STREQ(params.getChildNodeWithAttribute("player", "kind", nullptr, &i).getText(), "C");
    EXPECT_TRUE(params.getChildNodeWithAttribute("player", "kind", nullptr, &i).isEmpty());
    EXPECT_STREQ(params.getChildNodeWithAttribute("player", "id", "2").getText(), "B");
    EXPECT_TRUE(params.getChildNodeWithAttribute("player", "kind", "photo").isEmpty());

    XMLNode dup = XMLNode::parseString("<a x=\"1\" X=\"2\"/>", "a");
    i = 0;
    EXPECT_STREQ(dup.getAttribute("x", &i), "1");
    EXPECT_STREQ(dup.getAttribute("x", &i), "2");
    EXPECT_EQ(dup.getAttribute("x", &i), nullptr);
}

TEST(XMLTree, ContentPositionsAndEditing) {
    XMLNode root = XMLNode::createXMLTopNode("root");
    root.addText("t1");
    root.addChild("c2");
    root.addChild("c0", false, 0);  // before everything
    root.addText("t0", 0);
    root.addClear("k", "<!--", "-->", 2);  // before t1
    EXPECT_EQ(root.toString(0), "<root>t0<c0/><!--k-->t1<c2/></root>");
    EXPECT_STREQ(root.getText(0), "t0");
    EXPECT_STREQ(root.getChildNode(0).getName(), "c0");

    root.deleteText(0);
    root.deleteClear(0);
    root.updateText("T1");
    root.updateText("extra", 5);  // no such text: appended
    EXPECT_EQ(root.toString(0), "<root><c0/>T1<c2/>extra</root>");

    root.addAttribute("a", "1");
    root.addAttribute("flag", nullptr);
    root.updateAttribute("2", "A");
    root.updateAttribute("new", "b");
    EXPECT_EQ(root.toString(0).rfind("<root a=\"2\" flag b=\"new\"><c0/>", 0), 0u);
    EXPECT_TRUE(root.isAttributeSet("flag"));
    EXPECT_EQ(root.getAttribute("flag"), nullptr);
    root.deleteAttribute("FLAG");
    root.deleteAttribute(0);
    EXPECT_EQ(root.nAttribute(), 1);
    EXPECT_STREQ(root.getAttributeName(0), "b");

    root.updateName("top");
    EXPECT_STREQ(root.getName(), "top");

    XMLNode w = root.addChild_WOSD(stringDup("owned"));
    w.addText_WOSD(stringDup("txt"));
    w.addAttribute_WOSD(stringDup("k"), stringDup("v"));
    EXPECT_EQ(w.toString(0), "<owned k=\"v\">txt</owned>");
}

TEST(XMLTree, HandlesShareTheElement) {
    XMLNode root = XMLNode::createXMLTopNode("root");
    XMLNode a = root.addChild("a");
    XMLNode alias = root.getChildNode("a");
    EXPECT_EQ(a, alias);
    alias.addText("via alias");
    EXPECT_STREQ(a.getText(), "via alias");
    EXPECT_EQ(a.getParentNode(), root);

    XMLNode copy(a);
    XMLNode assigned;
    assigned = copy;
    assigned = assigned;  // self-assignment keeps the element
    XMLNode moved(std::move(copy));
    EXPECT_TRUE(copy.isEmpty());
    EXPECT_EQ(moved, a);
    EXPECT_EQ(assigned, a);

    // A child outlives the handle of its document while it is referenced.
    XMLNode child = XMLNode::parseString(kRequest, "root").getChildNode("command");
    EXPECT_STREQ(child.getText(), "Play");
    EXPECT_TRUE(child.getParentNode().isEmpty());
}

TEST(XMLTree, DeleteNodeContentDetachesAndLeavesOtherHandlesValid) {
    XMLNode root = XMLNode::parseString(kRequest, "root");
    XMLNode params = root.getChildNode("paramList");
    XMLNode second = params;
    XMLNode player = params.getChildNode(0);

    params.deleteNodeContent();
    EXPECT_TRUE(params.isEmpty());
    EXPECT_EQ(root.nChildNode(), 1);
    EXPECT_TRUE(root.getChildNode("paramList").isEmpty());
    EXPECT_EQ(root.toString(0), "<root><command>Play</command></root>");

    // The copy taken before still sees the whole detached subtree.
    ASSERT_FALSE(second.isEmpty());
    EXPECT_TRUE(second.getParentNode().isEmpty());
    EXPECT_EQ(second.nChildNode("player"), 3);
    EXPECT_EQ(player.getParentNode(), second);
    second = XMLNode();
    // Its last handle gone, the subtree is released; a child still held becomes a top node.
    EXPECT_STREQ(player.getText(), "A");
    EXPECT_TRUE(player.getParentNode().isEmpty());
}

TEST(XMLTree, AddChildMovesExistingTreesAndRefusesCycles) {
    XMLNode root = XMLNode::parseString("<root><a><x/></a><b/></root>", "root");
    XMLNode a = root.getChildNode("a");
    XMLNode b = root.getChildNode("b");
    XMLNode x = a.getChildNode("x");

    EXPECT_EQ(b.addChild(x), x);
    EXPECT_EQ(root.toString(0), "<root><a/><b><x/></b></root>");
    EXPECT_EQ(x.getParentNode(), b);

    EXPECT_TRUE(x.addChild(root).isEmpty());  // root is an ancestor of x
    EXPECT_TRUE(b.addChild(b).isEmpty());
    EXPECT_EQ(root.toString(0), "<root><a/><b><x/></b></root>");

    root.addChild(b, 0);  // re-positioning under the same parent
    EXPECT_EQ(root.toString(0), "<root><b><x/></b><a/></root>");

    XMLNode top = XMLNode::createXMLTopNode("new");
    a.addChild(top);
    EXPECT_EQ(root.toString(0), "<root><b><x/></b><a><new/></a></root>");
}

TEST(XMLTree, DeepCopyIsIndependent) {
    XMLNode root = XMLNode::parseString("<root k=\"v\"><a>1<!--c--><b>2</b></a></root>", "root");
    XMLNode copy = root.getChildNode("a").deepCopy();
    EXPECT_TRUE(copy.getParentNode().isEmpty());
    EXPECT_EQ(copy.toString(0), "<a>1<!--c--><b>2</b></a>");
    EXPECT_NE(copy.getChildNode("b"), root.getChildNodeByPath("a/b"));

    copy.getChildNode("b").updateText("changed");
    copy.addChild("added");
    root.getChildNode("a").deleteNodeContent();
    EXPECT_EQ(root.toString(0), "<root k=\"v\"/>");
    EXPECT_EQ(copy.toString(0), "<a>1<!--c--><b>changed</b><added/></a>");
    EXPECT_EQ(copy.getChildNode("b").getParentNode(), copy);
}

TEST(XMLTree, HandlesCopiedOnSeveralThreads) {
    XMLNode root = XMLNode::parseString(kRequest, "root");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([root] {
            for (int k = 0; k < 2000; ++k) {
                XMLNode copy = root;
                XMLNode again(copy);
                (void)again.getName();
            }
        });
    }
    for (auto& t : threads) t.join();
    EXPECT_STREQ(root.getChildNode("command").getText(), "Play");
}

TEST(XMLTree, DeepDocumentsDoNotRecurse) {
    const int depth = 100000;  // deep enough that a recursive walk would endanger a thread stack
    std::string text;
    text.reserve(depth * 8);
    for (int k = 0; k < depth; ++k) text += "<a>";
    text += "x";
    for (int k = 0; k < depth; ++k) text += "</a>";
    XMLNode doc = XMLNode::parseString(text, "a");
    ASSERT_FALSE(doc.isEmpty());
    EXPECT_EQ(doc.toString(0), text);
    EXPECT_EQ(doc.deepCopy().toString(0).size(), text.size());
}

}  // namespace
