// Loading from the module, test mode, the language and the "-:" commands, each in a probe process
// of its own (the table is loaded once per process).
#include <gtest/gtest.h>

#include "program_run.h"

namespace {

const wchar_t* const probe_exe = L"usertext_probe.exe"; // with a resource; "_plain" without

struct InternationalValue : SavedRegistryValue {
    InternationalValue(const wchar_t* name, const wchar_t* value)
        : SavedRegistryValue(HKEY_CURRENT_USER, L"Control Panel\\International", name) {
        set(value);
    }
};

} // namespace

TEST(UserTextProcess, InitWritesTheDefaultsAndTheyLoadBackUnchanged) {
    ProgramCopy probe(probe_exe);
    probe.translate("text probe_plain {translated}\n");
    EXPECT_EQ(probe.run(L"-: init init.txt").shown(), "0 ");
    std::string written = probe.read(L"init.txt");
    EXPECT_TRUE(written.starts_with("\xEF\xBB\xBF\r\n# utf8\r\n\r\n"));
    for (const char* entry : {"\r\ntext probe_plain {plain}\r\n\r\n",
                              "\r\ntext probe_multi {line one\r\nline two\r\n}\r\n\r\n",
                              "\r\ntext probe_unbalanced {a }$){ b { c {d} }}$({}\r\n\r\n",
                              "\r\ntext probe_accents {caf\xC3\xA9 \xC5\x81\xC3\xB3"
                              "d\xC5\xBA}\r\n"})
        EXPECT_NE(written.find(entry), npos) << entry;
    for (const char* absent : {"translated", "text locale_", "dnt_probe_secret"})
        EXPECT_EQ(written.find(absent), npos) << absent;

    // As the translation, the written file gives the defaults' table and dumps as itself.
    probe.translate(written);
    ProgramRun loaded = probe.run(L"table");
    EXPECT_EQ(loaded.out, ProgramCopy(L"usertext_probe_plain.exe").run(L"table").out);
    EXPECT_NE(loaded.out.find("\r\nprobe_open={{ nested } open\r\n"), npos) << loaded.out;
    EXPECT_EQ(probe.run(L"-: DUMP dump.txt").shown(), "0 ");
    EXPECT_EQ(probe.read(L"dump.txt"), written);
}

TEST(UserTextProcess, AFileReplacesTheResourceEntirely) {
    ProgramCopy probe(probe_exe);
    EXPECT_EQ(probe.run(L"main probe_plain -- probe_arg x -- probe_b").out,
              "from resource\r\nresource x\r\ndefault b\r\n");
    EXPECT_EQ(probe.run(L"lazy probe_plain").out, "from resource\r\n");
    EXPECT_EQ(probe.run(L"-: res res.txt").shown(), "0 ");
    EXPECT_EQ(probe.read(L"res.txt"), "\xEF\xBB\xBF# utf8\r\ntext probe_plain {from resource}\r\n"
                                      "text probe_arg {resource %1}\r\n");
    probe.translate("text probe_b {from file}");
    EXPECT_EQ(probe.run(L"main probe_plain -- probe_b").out, "plain\r\nfrom file\r\n");
    EXPECT_EQ(probe.run(L"lazy probe_b").out, "from file\r\n");

    ProgramCopy plain(L"usertext_probe_plain.exe");
    EXPECT_EQ(plain.run(L"-: res res.txt").shown(), "-1 ERROR: No resource strings.\r\n");
    EXPECT_FALSE(std::filesystem::exists(plain.file(L"res.txt")));
}

TEST(UserTextProcess, ErrorsInTheFileAreReportedAndTheDefaultsStay) {
    ProgramCopy probe(probe_exe);
    const std::string errors = "ERROR SCF: Unmatched open brace.\r\n"
                               "ERROR: Error(s) encountered parsing file strings.\r\n";
    probe.translate("text probe_a {A}\ntext probe_b {unclosed\ntext probe_c {C}\n");
    EXPECT_EQ(probe.run(L"load probe_a -- probe_b -- probe_c -- no_such_key").out,
              errors + "load=-1\r\nA\r\ndefault b\r\ndefault c\r\nno_such_key\r\n");
    EXPECT_EQ(probe.run(L"main probe_a -- probe_b").out, "A\r\ndefault b\r\n"); // quietly
    // A dump after errors shows them and writes nothing.
    EXPECT_EQ(probe.run(L"-: dump dump.txt").shown(), "-1 " + errors);
    EXPECT_FALSE(std::filesystem::exists(probe.file(L"dump.txt")));

    // `err` counts as an error but the file goes on; an empty file leaves the resource.
    probe.translate("text probe_a {A}\nerr check   this\ntext probe_c {C}\n");
    EXPECT_EQ(probe.run(L"load probe_a -- probe_c").out,
              "check this\r\nERROR: Error(s) encountered parsing file strings.\r\n"
              "load=-1\r\nA\r\nC\r\n");
    probe.translate("");
    EXPECT_EQ(probe.run(L"load probe_plain").out, "load=0\r\nfrom resource\r\n");
}

TEST(UserTextProcess, TheFileIsReadUpTo200000Bytes) {
    ProgramCopy probe(probe_exe);
    std::string file = "text probe_a {A}\n#" + std::string(199000, 'x') + "\ntext probe_b ";
    size_t b_start = file.size();
    probe.translate(file + std::string(300000 - b_start - 20, 'B') + "\ntext probe_c {C}\n");
    EXPECT_EQ(probe.run(L"load probe_a -- probe_b -- probe_c").out,
              "load=0\r\nA\r\n" + std::string(200000 - b_start, 'B') + "\r\ndefault c\r\n");
}

TEST(UserTextProcess, TestModeShowsEveryTextsKey) {
    ProgramCopy probe(probe_exe);
    probe.translate("text probe_name {Sonde}");
    std::vector<std::wstring> on = {L"KESTI_USERTEXTTESTMODE=1"};
    EXPECT_EQ(probe.run(L"main probe_banner -- probe_arg x", on).out,
              "(probe_banner) (probe_name) Sonde\r\nFor help run: (command_name) probe -h\r\n"
              "(probe_arg) value x\r\n");
    EXPECT_EQ(probe.run(L"main probe_plain", {L"KESTI_USERTEXTTESTMODE=yes"}).out,
              "(probe_plain) plain\r\n");
    EXPECT_EQ(probe.run(L"main probe_plain", {L"KESTI_USERTEXTTESTMODE=off"}).out, "plain\r\n");
    // Files written in test mode carry the texts without their keys.
    EXPECT_EQ(probe.run(L"-: dump dump.txt", on).shown(), "0 ");
    EXPECT_NE(probe.read(L"dump.txt").find("\r\ntext probe_name {Sonde}\r\n"), npos);
}

TEST(UserTextProcess, UsageAndFailuresToWrite) {
    ProgramCopy probe(probe_exe);
    std::string usage = probe.run(L"-:").shown(), module = narrow(probe.file(probe.name));
    EXPECT_TRUE(usage.starts_with("0 Strings will be read from module \"" + module +
                                  "\" resources, type \"file\" name \"usertext\".\r\n"
                                  "Strings will be read from file \"" +
                                  module + ".usertext\".\r\n"))
        << usage;
    EXPECT_NE(usage.find("\r\nWrite init strings to file:  usertext_probe.exe -: init <filename>"),
              npos);
    for (const wchar_t* arguments : {L"-: init", L"-: what file.txt"})
        EXPECT_EQ(probe.run(arguments).shown(), usage);

    std::wstring target = probe.file(L"no_such_folder\\init.txt");
    EXPECT_EQ(probe.run(L"-: init " + target).shown(), // ERROR_PATH_NOT_FOUND
              "3 ERROR: 3 Unable to create file \"" + narrow(target) + "\".\r\n");
}

TEST(UserTextProcess, StandardOutputIsAnsiWithCrLf) {
    if (GetACP() != 1252) GTEST_SKIP() << "expectations are for code page 1252";
    // No best fit: characters the code page lacks become "?", not look-alikes.
    EXPECT_EQ(ProgramCopy(probe_exe).run(L"main probe_accents -- probe_rest -- probe_multi").out,
              "caf\xE9 ?\xF3"
              "d?\r\nfirst\r\nrest without line end\r\nline one\r\nline two\r\n");
}

// The language and the locale texts come from the user's regional settings.
TEST(UserTextProcess, TheRegionalSettingsChooseTheTexts) {
    ProgramCopy probe(probe_exe);
    probe.translate("if ${asciiglobi DEU $langid} {text probe_plain deutsch} "
                    "else {text probe_plain $langid}\n"
                    "text locale_thous_grouping {translated}\n");
    InternationalValue language(L"sLanguage", L"NLD"), mode(L"iNegNumber", L"0"),
        decimal(L"sDecimal", L","), thousands(L"sThousand", L".");
    std::string table = probe.run(L"table").out;
    for (const char* entry : {"probe_plain=NLD", "locale_neg_format=(%1)", "locale_decimal=,",
                              "locale_thous_sep=.", "locale_thous_grouping=translated"})
        EXPECT_NE(table.find("\r\n" + std::string(entry) + "\r\n"), npos) << entry;
    // The environment's language comes first, unless it is empty.
    EXPECT_EQ(probe.run(L"main probe_plain", {L"KESTI_LANGID=deu"}).out, "deutsch\r\n");
    EXPECT_EQ(probe.run(L"main probe_plain", {L"KESTI_LANGID=FRA"}).out, "FRA\r\n");
    EXPECT_EQ(probe.run(L"main probe_plain", {L"KESTI_LANGID="}).out, "NLD\r\n");
}
