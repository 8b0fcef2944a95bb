#include "report.h"

#include <fcntl.h>

#include <string>
#include <vector>

#include "report_fixture.h"

namespace {

using reports::Problem;
using reports::Report;

class Reports : public ReportTest {
protected:
    static std::string IdOf(const std::string& name) {
        reports::ReportRoot root;
        base::UniqueFd folder;
        Report report;
        std::string id;
        EXPECT_FALSE(root.Open());
        EXPECT_FALSE(root.OpenReport(name, folder));
        EXPECT_FALSE(Describe(folder.Get(), name, report));
        EXPECT_FALSE(Identify(folder.Get(), report, id));
        return id;
    }
};

TEST_F(Reports, ArePathsRightInTheReportRootAndNothingElse) {
    std::string name;
    EXPECT_FALSE(reports::NameOf("/tmp/zol/a\n_17", name));
    EXPECT_EQ(name, "a\n_17");
    EXPECT_FALSE(reports::NameOf("/tmp/zol/a_NULL", name));

    for (const char* path : {"", "/tmp/zol", "/tmp/zol/", "/tmp/zol/a_17/b_17", "/tmp/zol/../zol/a_17",
                             "/etc/a_17", "tmp/zol/a_17", "/tmp/zol/CV_dump", "/tmp/zol/..", "/tmp/zol/_17",
                             "/tmp/zol/a17", "/tmp/zolx/a_17", "a_17"}) {
        EXPECT_EQ(reports::NameOf(path, name).problem, Problem::Refused) << path;
    }
}

TEST_F(Reports, OfARootThatIsALinkOrAnothersAreRefused) {
    fs::rename(Host("/tmp/zol"), Host("/tmp/moved"));
    EXPECT_EQ(Open(kName).problem, Problem::Missing);
    fs::create_directory_symlink("moved", Host("/tmp/zol"));
    EXPECT_EQ(Open(kName).problem, Problem::Refused);
    fs::remove(Host("/tmp/zol"));
    fs::create_directory(Host("/tmp/zol"));
    chmod(Host("/tmp/zol").c_str(), 0775);
    EXPECT_EQ(Open(kName).problem, Problem::Refused);
    chmod(Host("/tmp/zol").c_str(), 0755);
    EXPECT_EQ(Open(kName).problem, Problem::Missing);
    if (IsRoot()) {
        ASSERT_EQ(chown(Host("/tmp/zol").c_str(), kStranger, kStranger), 0);
        EXPECT_EQ(Open(kName).problem, Problem::Refused);
    }
}

TEST_F(Reports, ThatAreLinksFilesOrAnothersAreRefused) {
    MakeReport();
    EXPECT_FALSE(Open(kName));
    fs::create_directory_symlink(kName, HostOf("link_1"));
    WriteFile(HostOf("file_1"), "");
    EXPECT_EQ(Open("link_1").problem, Problem::Refused);
    EXPECT_EQ(Open("file_1").problem, Problem::Refused);
    EXPECT_EQ(Open("none_1").problem, Problem::Missing);
    chmod(HostOf(kName).c_str(), 0757);
    EXPECT_EQ(Open(kName).problem, Problem::Refused);
    chmod(HostOf(kName).c_str(), 0755);
    if (IsRoot()) {
        ASSERT_EQ(chown(HostOf(kName).c_str(), kStranger, kStranger), 0);
        EXPECT_EQ(Open(kName).problem, Problem::Refused);
    }
}

TEST_F(Reports, TellTheirHeaderAndTheirFiles) {
    MakeReport(kName, "1700000123");
    WriteFile(HostOf(kName) + "/below/deeper/core", "12345");
    fs::create_symlink("/etc/passwd", HostOf(kName) + "/link");

    Report report;
    ASSERT_FALSE(Open(kName, &report));

    ASSERT_EQ(report.files.size(), 2U);
    EXPECT_EQ(report.files[0].name, "below/deeper/core");
    EXPECT_EQ(report.files[1].name, "header.json");
    EXPECT_EQ(report.bytes, 5 + HeaderText("1700000123").size());
    EXPECT_EQ(report.leftOut, 1U);
    EXPECT_EQ(report.Time(), 1700000123);
    ASSERT_NE(report.Field("id"), nullptr);
    EXPECT_EQ(*report.Field("id"), "HW-1");
    EXPECT_EQ(report.Field("other"), nullptr);
}

TEST_F(Reports, WithoutAHeaderThatCanBeReadTellTheirAge) {
    for (const std::string& text :
         {std::string(), std::string("{"), std::string("[]"), std::string("17"), std::string(70000, ' '),
          std::string(4000, '[') + std::string(4000, ']'),
          R"({"a": [[[[[[[[[["deep"]]]]]]]]]], "evid": "1700000000"})" + std::string()}) {
        MakeReport();
        WriteFile(HostOf(kName) + "/header.json", text);
        SetAge(kName, 30);
        Report report;
        ASSERT_FALSE(Open(kName, &report));
        EXPECT_FALSE(report.header) << text.substr(0, 20);
        EXPECT_EQ(report.Time(), fakes::clock::WallSeconds() - 30);
    }
    fs::remove(HostOf(kName) + "/header.json");
    fs::create_symlink(Host("/tmp/secret"), HostOf(kName) + "/header.json");
    WriteFile(Host("/tmp/secret"), HeaderText("1"));
    Report report;
    ASSERT_FALSE(Open(kName, &report));
    EXPECT_FALSE(report.header);
}

TEST_F(Reports, HaveTheTextsOfTheirHeaderOnly) {
    MakeReport();
    WriteFile(HostOf(kName) + "/header.json",
              R"({"id": {"a": "b"}, "list": ["a"], "number": 7, "none": null, "evid": "1700000000"})");
    Report report;
    ASSERT_FALSE(Open(kName, &report));
    EXPECT_EQ(report.header, (reports::Header{{"evid", "1700000000"}}));
}

TEST_F(Reports, WithAHeaderThatIsBrokenAtAnyByteAreDescribedAllTheSame) {
    const std::string whole = HeaderText("1700000000");
    MakeReport();
    int headers = 0;
    for (std::size_t place = 0; place <= whole.size(); ++place) {
        std::vector<std::string> texts{whole.substr(0, place)};
        for (const char byte : {'\0', '"', '{', '}', '[', '\\', '9', '\xFF'}) {
            texts.push_back(whole);
            texts.back().insert(place, 1, byte);
        }
        for (const std::string& text : texts) {
            WriteFile(HostOf(kName) + "/header.json", text);
            reports::Report report;
            const reports::Outcome outcome = Open(kName, &report);
            ASSERT_FALSE(outcome) << outcome.text << ": " << text;
            ASSERT_EQ(report.files.size(), 1U);
            ASSERT_EQ(report.files[0].bytes, text.size());
            headers += report.header ? 1 : 0;
        }
    }
    EXPECT_GT(headers, 100) << "a byte more in a text is another text";
}

TEST_F(Reports, HaveAnIdOfTheirNameAndContents) {
    MakeReport();
    WriteFile(HostOf(kName) + "/a", "bc");
    const std::string id = IdOf(kName);
    EXPECT_EQ(id.size(), 64U);
    SetAge(kName, 5);
    EXPECT_EQ(IdOf(kName), id);

    WriteFile(HostOf(kName) + "/a", "bd");
    EXPECT_NE(IdOf(kName), id);
    WriteFile(HostOf(kName) + "/a", "bc");
    EXPECT_EQ(IdOf(kName), id);
    fs::rename(HostOf(kName) + "/a", HostOf(kName) + "/b");
    EXPECT_NE(IdOf(kName), id);
    fs::rename(HostOf(kName) + "/b", HostOf(kName) + "/a");
    fs::rename(HostOf(kName), HostOf("other_1"));
    EXPECT_NE(IdOf("other_1"), id);
}

TEST_F(Reports, SettleTenSecondsAfterTheirLastChange) {
    MakeReport();
    for (const auto& [age, isSettled] :
         {std::pair<int, bool>{0, false}, {9, false}, {10, true}, {-1, true}}) {
        SetAge(kName, age);
        Report report;
        ASSERT_FALSE(Open(kName, &report));
        EXPECT_EQ(reports::IsSettled(report), isSettled) << age;
    }
}

TEST_F(Reports, AreListedWithoutWhatElseLiesThere) {
    MakeReport();
    MakeReport("x_NULL");
    fs::create_directory(HostOf("CV_dump"));
    reports::ReportRoot root;
    std::vector<std::string> names;
    ASSERT_FALSE(root.Open());
    ASSERT_FALSE(root.List(names));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<std::string>{kName, "x_NULL"}));
}

}  // namespace
