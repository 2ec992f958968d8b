// Loading from the module, test mode, the language and the "-:" commands, each in a probe process
// of its own (the table is loaded once per process).

#include <gtest/gtest.h>

#include <string>

#include <windows.h>

#include "probe_runner.h"

namespace {

const DWORD exit_failure = static_cast<DWORD>(-1);

// Sets a value under HKCU "Control Panel\International" for the length of a test.
class InternationalValue {
public:
    InternationalValue(const wchar_t* name, const wchar_t* value) : name_(name) {
        RegOpenKeyExW(HKEY_CURRENT_USER, L"Control Panel\\International", 0,
                      KEY_QUERY_VALUE | KEY_SET_VALUE, &key_);
        wchar_t old[100];
        DWORD size = sizeof old, type = 0;
        had_ = RegQueryValueExW(key_, name, nullptr, &type, reinterpret_cast<BYTE*>(old), &size) ==
                   ERROR_SUCCESS &&
               type == REG_SZ;
        if (had_) old_ = old;
        set(value);
    }
    ~InternationalValue() {
        if (had_)
            set(old_.c_str());
        else
            RegDeleteValueW(key_, name_);
        RegCloseKey(key_);
    }

private:
    void set(const wchar_t* value) {
        RegSetValueExW(key_, name_, 0, REG_SZ, reinterpret_cast<const BYTE*>(value),
                       static_cast<DWORD>((wcslen(value) + 1) * sizeof(wchar_t)));
    }
    HKEY key_ = nullptr;
    const wchar_t* name_;
    bool had_ = false;
    std::wstring old_;
};

std::string narrow(const std::wstring& s) {
    return std::string(s.begin(), s.end());
}

} // namespace

TEST(UserTextProcess, InitWritesTheDefaultsAndTheyLoadBackUnchanged) {
    ProbeDir dir;
    ProbeDir::write(dir.text_file(), "text probe_plain {translated}\n");
    ProbeRun init = dir.run(L"-: init init.txt");
    EXPECT_EQ(init.exit_code, 0u) << init.out;
    EXPECT_EQ(init.out, "");
    std::string written = ProbeDir::read(dir.path(L"init.txt"));
    EXPECT_EQ(written.substr(0, 15), "\xEF\xBB\xBF\r\n# utf8\r\n\r\n");
    EXPECT_NE(written.find("\r\ntext probe_plain {plain}\r\n\r\n"), std::string::npos);
    EXPECT_NE(written.find("\r\ntext probe_multi {line one\r\nline two\r\n}\r\n\r\n"),
              std::string::npos);
    EXPECT_NE(written.find("\r\ntext probe_unbalanced {a }$){ b { c {d} }}$({}\r\n\r\n"),
              std::string::npos);
    EXPECT_NE(written.find("\r\ntext probe_accents {caf\xC3\xA9 \xC5\x81\xC3\xB3"
                           "d\xC5\xBA}\r\n"),
              std::string::npos);
    EXPECT_EQ(written.find("translated"), std::string::npos);
    EXPECT_EQ(written.find("text locale_"), std::string::npos);
    EXPECT_EQ(written.find("dnt_probe_secret"), std::string::npos);

    // With the written file as the translation the table is the defaults' table ...
    ProbeDir plain(L"usertext_probe_plain.exe");
    ProbeRun defaults = plain.run(L"table");
    ProbeDir::write(dir.text_file(), written);
    ProbeRun loaded = dir.run(L"table");
    EXPECT_EQ(loaded.out, defaults.out);
    EXPECT_NE(loaded.out.find("probe_unbalanced=a } b { c {d} }{\r\n"), std::string::npos);

    // ... and dumping it gives the same file again.
    ProbeRun dump = dir.run(L"-: DUMP dump.txt");
    EXPECT_EQ(dump.exit_code, 0u) << dump.out;
    EXPECT_EQ(ProbeDir::read(dir.path(L"dump.txt")), written);
}

TEST(UserTextProcess, AFileReplacesTheResourceEntirely) {
    ProbeDir dir;
    EXPECT_EQ(dir.run(L"main probe_plain -- probe_arg x -- probe_b").out,
              "from resource\r\nresource x\r\ndefault b\r\n");
    EXPECT_EQ(dir.run(L"lazy probe_plain").out, "from resource\r\n");

    ProbeDir::write(dir.text_file(), "text probe_b {from file}");
    EXPECT_EQ(dir.run(L"main probe_plain -- probe_b").out, "plain\r\nfrom file\r\n");
    EXPECT_EQ(dir.run(L"lazy probe_b").out, "from file\r\n");

    // The resource bytes as they are in the module, read with the loader as the oracle.
    HMODULE module = LoadLibraryExW(dir.exe().c_str(), nullptr, LOAD_LIBRARY_AS_DATAFILE);
    ASSERT_NE(module, nullptr);
    HRSRC resource = FindResourceW(module, L"file", L"usertext");
    ASSERT_NE(resource, nullptr);
    std::string expected(static_cast<const char*>(LockResource(LoadResource(module, resource))),
                         SizeofResource(module, resource));
    FreeLibrary(module);
    ProbeRun res = dir.run(L"-: res res.txt");
    EXPECT_EQ(res.exit_code, 0u) << res.out;
    EXPECT_EQ(ProbeDir::read(dir.path(L"res.txt")), expected);

    ProbeDir plain(L"usertext_probe_plain.exe");
    ProbeRun none = plain.run(L"-: res res.txt");
    EXPECT_EQ(none.exit_code, exit_failure);
    EXPECT_EQ(none.out, "ERROR: No resource strings.\r\n");
    EXPECT_FALSE(ProbeDir::exists(plain.path(L"res.txt")));
}

TEST(UserTextProcess, ErrorsInTheFileAreReportedAndTheDefaultsStay) {
    ProbeDir dir;
    ProbeDir::write(dir.text_file(), "text probe_a {A}\n"
                                     "text probe_b {unclosed\n"
                                     "text probe_c {C}\n");
    EXPECT_EQ(dir.run(L"load probe_a -- probe_b -- probe_c -- no_such_key").out,
              "ERROR SCF: Unmatched open brace.\r\n"
              "ERROR: Error(s) encountered parsing file strings.\r\n"
              "load=-1\r\nA\r\ndefault b\r\ndefault c\r\nno_such_key\r\n");
    // Front-ends load quietly.
    EXPECT_EQ(dir.run(L"main probe_a -- probe_b").out, "A\r\ndefault b\r\n");
    // A dump after errors shows them and writes nothing.
    ProbeRun dump = dir.run(L"-: dump dump.txt");
    EXPECT_EQ(dump.exit_code, exit_failure);
    EXPECT_EQ(dump.out, "ERROR SCF: Unmatched open brace.\r\n"
                        "ERROR: Error(s) encountered parsing file strings.\r\n");
    EXPECT_FALSE(ProbeDir::exists(dir.path(L"dump.txt")));

    // `err` counts as an error but the file goes on.
    ProbeDir::write(dir.text_file(), "text probe_a {A}\nerr check   this\ntext probe_c {C}\n");
    EXPECT_EQ(dir.run(L"load probe_a -- probe_c").out,
              "check this\r\nERROR: Error(s) encountered parsing file strings.\r\n"
              "load=-1\r\nA\r\nC\r\n");

    // An empty file gives nothing, and the resource applies.
    ProbeDir::write(dir.text_file(), "");
    EXPECT_EQ(dir.run(L"load probe_plain").out, "load=0\r\nfrom resource\r\n");
}

TEST(UserTextProcess, TheFileIsReadUpTo200000Bytes) {
    ProbeDir dir;
    std::string file = "text probe_a {A}\n";
    file += "#" + std::string(199000, 'x') + "\n";
    file += "text probe_b ";
    size_t b_start = file.size();
    file += std::string(300000 - b_start - 20, 'B') + "\ntext probe_c {C}\n";
    ProbeDir::write(dir.text_file(), file);
    ProbeRun run = dir.run(L"load probe_a -- probe_b -- probe_c");
    EXPECT_EQ(run.out,
              "load=0\r\nA\r\n" + std::string(200000 - b_start, 'B') + "\r\ndefault c\r\n");
}

TEST(UserTextProcess, TestModeShowsEveryTextsKey) {
    ProbeDir dir;
    ProbeDir::write(dir.text_file(), "text probe_tag {Version 2}");
    std::vector<std::wstring> on = {L"KESTI_USERTEXTTESTMODE=1"};
    EXPECT_EQ(dir.run(L"main probe_banner -- probe_arg x", on).out,
              "(probe_banner) (probe_name) Probe\r\n(probe_tag) Version 2\r\n"
              "For help run: (command_name) probe -h\r\n(probe_arg) value x\r\n");
    EXPECT_EQ(dir.run(L"main probe_plain", {L"KESTI_USERTEXTTESTMODE=yes"}).out,
              "(probe_plain) plain\r\n");
    EXPECT_EQ(dir.run(L"main probe_plain", {L"KESTI_USERTEXTTESTMODE=off"}).out, "plain\r\n");

    // The files written in test mode carry the texts without their keys.
    EXPECT_EQ(dir.run(L"-: dump dump.txt", on).exit_code, 0u);
    std::string dump = ProbeDir::read(dir.path(L"dump.txt"));
    EXPECT_NE(dump.find("\r\ntext probe_tag {Version 2}\r\n"), std::string::npos);
    EXPECT_NE(dump.find("\r\ntext probe_plain {plain}\r\n"), std::string::npos);
}

TEST(UserTextProcess, TheLanguageChoosesTheTexts) {
    ProbeDir dir;
    ProbeDir::write(dir.text_file(), "if ${asciiglobi DEU $langid} {text probe_plain deutsch} "
                                     "else {text probe_plain $langid}\n");
    EXPECT_EQ(dir.run(L"main probe_plain", {L"KESTI_LANGID=deu"}).out, "deutsch\r\n");
    EXPECT_EQ(dir.run(L"main probe_plain", {L"KESTI_LANGID=FRA"}).out, "FRA\r\n");
    InternationalValue language(L"sLanguage", L"NLD");
    EXPECT_EQ(dir.run(L"main probe_plain").out, "NLD\r\n");
    EXPECT_EQ(dir.run(L"main probe_plain", {L"KESTI_LANGID="}).out, "NLD\r\n");
}

TEST(UserTextProcess, UsageAndFailuresToWrite) {
    ProbeDir dir;
    std::string module = narrow(dir.exe());
    std::string usage =
        "Strings will be read from module \"" + module +
        "\" resources, type \"file\" name \"usertext\".\r\n"
        "Strings will be read from file \"" +
        module +
        ".usertext\".\r\n"
        "Set environment variable \"KESTI_LANGID\" to override language selection.\r\n"
        "Commands:\r\n"
        "Show this information:  probe.exe -:\r\n"
        "Write init strings to file:  probe.exe -: init <filename>\r\n"
        "Write resource strings to file:  probe.exe -: res <filename>\r\n"
        "Write loaded strings to file:  probe.exe -: dump <filename>\r\n";
    for (const wchar_t* arguments : {L"-:", L"-: init", L"-: what file.txt"}) {
        ProbeRun run = dir.run(arguments);
        EXPECT_EQ(run.exit_code, 0u);
        EXPECT_EQ(run.out, usage) << narrow(arguments);
    }
    std::wstring target = dir.path(L"no_such_folder\\init.txt");
    ProbeRun run = dir.run(L"-: init " + target);
    EXPECT_EQ(run.exit_code, static_cast<DWORD>(ERROR_PATH_NOT_FOUND));
    EXPECT_EQ(run.out, "ERROR: 3 Unable to create file \"" + narrow(target) + "\".\r\n");
}

TEST(UserTextProcess, StandardOutputIsAnsiWithCrLf) {
    if (GetACP() != 1252) GTEST_SKIP() << "expectations are for code page 1252";
    ProbeDir dir;
    // No best fit: characters the code page lacks become "?", not look-alikes.
    EXPECT_EQ(dir.run(L"main probe_accents -- probe_rest -- probe_multi").out,
              "caf\xE9 ?\xF3"
              "d?\r\nfirst\r\nrest without line end\r\nline one\r\nline two\r\n");
}

TEST(UserTextProcess, LocaleTextsFollowTheRegionalSettings) {
    ProbeDir dir;
    InternationalValue mode(L"iNegNumber", L"0");
    InternationalValue decimal(L"sDecimal", L",");
    InternationalValue thousands(L"sThousand", L".");
    ProbeRun run = dir.run(L"table");
    EXPECT_NE(run.out.find("\r\nlocale_neg_format=(%1)\r\n"), std::string::npos) << run.out;
    EXPECT_NE(run.out.find("\r\nlocale_decimal=,\r\n"), std::string::npos);
    EXPECT_NE(run.out.find("\r\nlocale_thous_sep=.\r\n"), std::string::npos);
    // A translation may still override them.
    ProbeDir::write(dir.text_file(), "text locale_decimal {;}");
    EXPECT_NE(dir.run(L"table").out.find("\r\nlocale_decimal=;\r\n"), std::string::npos);
}
