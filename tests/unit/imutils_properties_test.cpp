#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "KSAssertionException.h"
#include "KSProperties.h"

namespace {

using Entries = std::vector<std::pair<std::string, std::string>>;

// A scratch directory removed with everything in it when the test ends, pass or fail.
class ScratchDir {
  public:
    ScratchDir() {
        char pattern[] = "/tmp/rh_properties_XXXXXX";
        path_ = mkdtemp(pattern) != nullptr ? pattern : "";
    }
    ~ScratchDir() {
        std::error_code ignored;
        if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
    }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const {
        std::ofstream(file(name), std::ios::binary) << content;
        return file(name);
    }
    std::string read(const std::string& name) const {
        std::stringstream s;
        s << std::ifstream(file(name), std::ios::binary).rdbuf();
        return s.str();
    }

  private:
    std::string path_;
};

Entries entriesOf(const KSProperties& p) {
    Entries out;
    for (const KSProperty& e : p) out.emplace_back(e.getName(), e.getValue());
    return out;
}

Entries loadText(const std::string& content) {
    ScratchDir dir;
    KSProperties p;
    EXPECT_TRUE(p.load(dir.write("p.cfg", content).c_str()));
    return entriesOf(p);
}

struct SyntaxCase {
    const char* what;
    std::string content;
    Entries expected;
};

}  // namespace

TEST(KSPropertiesTest, loadFollowsTheFileSyntax) {
    const std::vector<SyntaxCase> cases = {
        {"comments, bare words and empty names are skipped; quotes turn into trimmed blanks",
         "   # comment\nx\n=5\nkey   = \"v=1 # x\"\n",
         {{"key", "v=1 # x"}}},
        {"a later duplicate overrides in place", "a=1\nb=3\na=2\n", {{"a", "2"}, {"b", "3"}}},
        {"quoted value keeps its inner blank", "name=\"a b\"\n", {{"name", "a b"}}},
        {"a quote inside a value becomes a blank", "q=say\"hi\"\n", {{"q", "say hi"}}},
        {"an empty value is stored empty", "e=\r\n", {{"e", ""}}},
        {"# inside a line is ordinary text",
         "k#1 = v # not a comment\n",
         {{"k#1", "v # not a comment"}}},
        {"blank and white-space-only lines are ignored; tabs are white space",
         "\n \t \n\tt\t=\t9\t\n",
         {{"t", "9"}}},
        {"last line without a newline is read", "z=26", {{"z", "26"}}},
    };
    for (const SyntaxCase& c : cases) EXPECT_EQ(loadText(c.content), c.expected) << c.what;
}

TEST(KSPropertiesTest, aMegabyteLineIsReadInPiecesOfItsOwn) {
    // The first 65,535 bytes of the long line are a piece without '=' and are ignored; the rest
    // of the line is read as a line of its own whose name is the remaining run of 'a'.
    std::string content = std::string(1000000, 'a') + "=tail\nafter=1\n";
    Entries got = loadText(content);
    const size_t firstPieces = (1000000 / 65535) * 65535;
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].first, std::string(1000000 - firstPieces, 'a'));
    EXPECT_EQ(got[0].second, "tail");
    EXPECT_EQ(got[1], (std::pair<std::string, std::string>("after", "1")));
}

TEST(KSPropertiesTest, loadOfAMissingFileReturnsFalseAndKeepsTheSet) {
    ScratchDir dir;
    KSProperties p;
    p.setProperty("kept", "1");
    EXPECT_FALSE(p.load(dir.file("missing.cfg").c_str()));
    EXPECT_EQ(entriesOf(p), (Entries{{"kept", "1"}}));

    // A second file is merged into what is already there.
    EXPECT_TRUE(p.load(dir.write("more.cfg", "new=2\nkept=3\n").c_str()));
    EXPECT_EQ(entriesOf(p), (Entries{{"kept", "3"}, {"new", "2"}}));
}

TEST(KSPropertiesTest, writeProducesQuotedLinesAndReadsBackWithQuotesAsBlanks) {
    ScratchDir dir;
    KSProperties p;
    p.setProperty("a", "b");
    p.setProperty("empty", "");
    p.setProperty("v", "say \"hi\"");
    EXPECT_TRUE(p.write(dir.file("out.cfg").c_str()));
    EXPECT_EQ(dir.read("out.cfg"), "a=\"b\"\nempty=\"\"\nv=\"say \"hi\"\"\n");

    KSProperties back;
    ASSERT_TRUE(back.load(dir.file("out.cfg").c_str()));
    EXPECT_EQ(entriesOf(back), (Entries{{"a", "b"}, {"empty", ""}, {"v", "say  hi"}}));
    // A device that is always full takes the open but not the data.
    EXPECT_FALSE(p.write("/dev/full"));
}

TEST(KSPropertiesTest, aReaderNeverFindsAFileHalfRewritten) {
    ScratchDir dir;
    const std::string file = dir.file("state.cfg");
    KSProperties full;
    for (int i = 0; i < 200; ++i)
        full.setProperty(("key" + std::to_string(i)).c_str(), "a value long enough to matter");
    ASSERT_TRUE(full.write(file.c_str()));
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 300; ++i) full.write(file.c_str());
        done = true;
    });
    int partial = 0;
    while (!done) {
        KSProperties seen;
        if (!seen.load(file.c_str()) || entriesOf(seen).size() != 200) ++partial;
    }
    writer.join();
    EXPECT_EQ(partial, 0) << "reads that found the file missing or short";
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir.file("")))
        files += entry.path().filename().string().rfind("state.cfg", 0) == 0 ? 1 : 0;
    EXPECT_EQ(files, 1) << "no file is left beside the state file";
}

TEST(KSPropertiesTest, writeToAnUnopenableFileThrowsNamingTheFile) {
    ScratchDir dir;
    KSProperties p;
    p.setProperty("a", "b");
    const std::string target = dir.file("no/such/dir.cfg");
    try {
        p.write(target.c_str());
        FAIL() << "writing into a missing directory must throw";
    } catch (const KSAssertionException& e) {
        EXPECT_EQ(e.getExpression(), "f");
        EXPECT_EQ(e.getFile(), "backend/imutils/src/KSProperties");
        EXPECT_EQ(e.getMessage(), "could not open " + target + " in KSProperties::write");
    }
}

TEST(KSPropertiesTest, nullArgumentsThrowNamingTheArgument) {
    KSProperties p;
    auto expressionOf = [](auto&& call) -> std::string {
        try {
            call();
        } catch (const KSAssertionException& e) {
            EXPECT_EQ(e.getFile(), "backend/imutils/src/KSProperties");
            return e.getExpression();
        }
        return "<no exception>";
    };
    EXPECT_EQ(expressionOf([&] { p.getProperty(nullptr); }), "name");
    EXPECT_EQ(expressionOf([&] { p.setProperty(nullptr, "v"); }), "name");
    EXPECT_EQ(expressionOf([&] { p.setProperty("n", nullptr); }), "value");
    EXPECT_EQ(expressionOf([&] { p.load(nullptr); }), "filename");
    EXPECT_EQ(expressionOf([&] { p.write(nullptr); }), "filename");
    EXPECT_EQ(expressionOf([&] { KSProperty("n", nullptr); }), "str");
    KSProperty entry("n", "v");
    EXPECT_EQ(expressionOf([&] { entry.setValue(nullptr); }), "value");
}

TEST(KSPropertiesTest, copiesAreDeepMovesEmptyTheSourceAndRemoveTakesOneEntry) {
    KSProperties original;
    for (const char* name : {"a", "b", "c"}) original.setProperty(name, "1");

    KSProperties copy(original);
    copy.setProperty("a", "changed");
    copy.remove("b");
    copy.remove("absent");
    EXPECT_EQ(entriesOf(original), (Entries{{"a", "1"}, {"b", "1"}, {"c", "1"}}));
    EXPECT_EQ(entriesOf(copy), (Entries{{"a", "changed"}, {"c", "1"}}));

    KSProperties moved(std::move(original));
    EXPECT_EQ(moved.size(), 3u);
    EXPECT_TRUE(original.empty());  // NOLINT(bugprone-use-after-move): moved-from state is defined
}
