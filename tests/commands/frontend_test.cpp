// The front-ends as a person meets them: each executable run as a real process, finding the
// real library and dispatching against its own command list.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <windows.h>

#include "base/test_support.h"
#include "factory/library_value.h"
#include "frontend_runner.h"

namespace {

const DWORD exit_failure = static_cast<DWORD>(-1);

// The commands a front-end lists, in the order its help shows them.
struct FrontEnd {
    const wchar_t* program;
    std::vector<std::string> commands;
};

const FrontEnd kFrontEnds[] = {
    {L"zun",
     {"flush", "formatters", "list", "mount", "register", "uninstall", "unmount", "unregister"}},
    {L"zunhost", {"createsysmount", "findformatter", "mount", "serve"}},
    {L"zuninst", {"install", "uninstall"}},
    {L"luminst", {"sysinstall", "sysuninstall"}},
    {L"lumcmd", {"list", "sysuninstall", "unmount"}},
};

std::string narrow(const std::wstring& s) {
    return std::string(s.begin(), s.end());
}

// zunhost is a windowed program whose entry gives -1 whatever the command did.
DWORD success_code(const std::wstring& program) {
    return program == L"zunhost" ? exit_failure : 0;
}

// The command names of a general help, in the order printed.
std::vector<std::string> listed_commands(const std::string& help) {
    std::vector<std::string> names;
    size_t start = 0;
    while (start < help.size()) {
        size_t end = help.find("\r\n", start);
        if (end == std::string::npos) end = help.size();
        std::string line = help.substr(start, end - start);
        if (line.rfind("  ", 0) == 0) names.push_back(line.substr(2, line.find("  ", 2) - 2));
        start = end + 2;
    }
    return names;
}

} // namespace

TEST(FrontEnd, NoArgumentsPrintTheBanner) {
    FrontEndRun run = run_frontend(L"zun", L"");
    EXPECT_EQ(run.exit_code, 0u);
    EXPECT_EQ(run.out, "Command - Kesti File Mount\r\n"
                       "Copyright (C) 2012 Kesti File Mount developers.\r\n"
                       "zun.1.0.0.165.x64.release - 2012.05.16\r\n"
                       "For help run: zun -h\r\n");
    for (const wchar_t* program : {L"zunhost", L"lumcmd"}) {
        FrontEndRun other = run_frontend(program, L"");
        EXPECT_EQ(other.exit_code, success_code(program));
        EXPECT_NE(other.out.find("For help run: " + narrow(program) + " -h\r\n"), std::string::npos)
            << other.out;
    }
}

TEST(FrontEnd, HelpListsTheFrontEndsCommandsInOrder) {
    for (const FrontEnd& front_end : kFrontEnds) {
        std::string name = narrow(front_end.program);
        FrontEndRun run = run_frontend(front_end.program, L"-h");
        EXPECT_EQ(run.exit_code, success_code(front_end.program)) << name;
        EXPECT_EQ(run.out.rfind(name + " <command> [...]\r\ncommands:\r\n", 0), 0u) << run.out;
        EXPECT_EQ(listed_commands(run.out), front_end.commands) << name;
        std::string last = "For more help run: " + name + " <command> -h\r\n";
        EXPECT_EQ(run.out.substr(run.out.size() - std::min(run.out.size(), last.size())), last);
    }
    // Every help word, in any case, and a help word before an unknown name.
    std::string expected = run_frontend(L"zun", L"-h").out;
    EXPECT_NE(expected.find("  mount  Mount file.\r\n"), std::string::npos) << expected;
    for (const wchar_t* words : {L"/?", L"/H", L"/help", L"?", L"-?", L"HELP", L"-help", L"--Help",
                                 L"help nosuchcommand", L"-h -h"}) {
        FrontEndRun run = run_frontend(L"zun", words);
        EXPECT_EQ(run.exit_code, 0u) << narrow(words);
        EXPECT_EQ(run.out, expected) << narrow(words);
    }
}

TEST(FrontEnd, LongHelpNamesTheRegisteredCommand) {
    FrontEndRun reference = run_frontend(L"zun", L"help mount");
    EXPECT_EQ(reference.exit_code, 0u);
    EXPECT_EQ(reference.out.rfind("syntax: zun mount [<switch> ...] <file>\r\nswitches:\r\n", 0),
              0u)
        << reference.out;
    EXPECT_NE(reference.out.find("  -x <pid>  Limit mount visibility to specified process and "
                                 "children.\r\n"),
              std::string::npos);
    for (const wchar_t* arguments : {L"mount -h", L"MOUNT -H", L"/? Mount", L"mount /? disk.img"}) {
        FrontEndRun run = run_frontend(L"zun", arguments);
        EXPECT_EQ(run.exit_code, 0u) << narrow(arguments);
        EXPECT_EQ(run.out, reference.out) << narrow(arguments);
    }
    // The same command in another front-end names that front-end; a text without a final line
    // end is printed as it stands.
    FrontEndRun host = run_frontend(L"zunhost", L"Mount --help");
    EXPECT_EQ(host.out.rfind("syntax: zunhost mount [<switch> ...] <file>\r\n", 0), 0u) << host.out;
    EXPECT_EQ(run_frontend(L"lumcmd", L"sysuninstall -h").out, "syntax: lumcmd sysuninstall");
    EXPECT_EQ(run_frontend(L"zunhost", L"help findformatter").out, "Internal use only.\r\n");
}

TEST(FrontEnd, UnknownAndUnavailableCommandsFail) {
    FrontEndRun unknown = run_frontend(L"zun", L"mounts");
    EXPECT_EQ(unknown.exit_code, exit_failure);
    EXPECT_EQ(unknown.out, "ERROR: Unknown command \"mounts\".\r\n");
    // A help word after an unknown name does not make it a help request; a command of another
    // front-end is unknown here.
    EXPECT_EQ(run_frontend(L"zun", L"mounts -h").out, unknown.out);
    EXPECT_EQ(run_frontend(L"zun", L"serve").out, "ERROR: Unknown command \"serve\".\r\n");

    // A command whose work this build lacks says so; a help word further on is its argument.
    FrontEndRun mount = run_frontend(L"zun", L"Mount disk.img -h");
    EXPECT_EQ(mount.exit_code, exit_failure);
    EXPECT_EQ(mount.out, "ERROR: The command \"Mount\" is not available in this build.\r\n");
}

TEST(FrontEnd, OddCommandLinesAreHandled) {
    FrontEndRun empty = run_frontend(L"zun", L"\"\"");
    EXPECT_EQ(empty.exit_code, exit_failure);
    EXPECT_EQ(empty.out, "ERROR: Unknown command \"\".\r\n");

    std::string long_name(30000, 'x');
    FrontEndRun very_long = run_frontend(L"zun", std::wstring(long_name.begin(), long_name.end()));
    EXPECT_EQ(very_long.exit_code, exit_failure);
    EXPECT_EQ(very_long.out, "ERROR: Unknown command \"" + long_name + "\".\r\n");

    std::wstring many_arguments = L"list";
    for (int i = 0; i < 500; ++i) many_arguments += L" -h";
    EXPECT_EQ(run_frontend(L"zun", many_arguments).exit_code, 0u);

    // Quotes and blanks as the windowed entry splits them.
    FrontEndRun quoted = run_frontend(L"zunhost", L"\"help\"   \"serve\"");
    EXPECT_EQ(quoted.exit_code, exit_failure);
    EXPECT_EQ(
        quoted.out.rfind("syntax: zunhost serve [<switch> ...] -f <formatter name> <file>\r\n", 0),
        0u)
        << quoted.out;
}

// "-: init" writes the registered texts; the same file beside the program, loaded and dumped,
// comes back byte for byte; and a text of its own is what the program shows.
TEST(FrontEnd, InitWritesTextsThatLoadBackUnchanged) {
    ScratchFolder folder;
    std::wstring zun = folder.copy_from_bin(L"zun.exe");
    folder.copy_from_bin(L"zunapi.dll");

    FrontEndRun init = run_frontend(zun, L"-: init init.txt", folder.path());
    EXPECT_EQ(init.exit_code, 0u) << init.out;
    std::string written = ScratchFolder::read(folder.file(L"init.txt"));
    EXPECT_EQ(written.rfind("\xEF\xBB\xBF\r\n# utf8\r\n\r\n", 0), 0u);
    EXPECT_NE(written.find("text banner {%(application_name)\r\n%(copyright)\r\n"),
              std::string::npos);
    EXPECT_NE(written.find("text mount_short_help {Mount file.\r\n}\r\n\r\n"), std::string::npos);
    // Set from the program's file name before the texts are written.
    EXPECT_NE(written.find("text command_name {zun}\r\n"), std::string::npos);

    ScratchFolder::write(zun + L".usertext", written);
    FrontEndRun dump = run_frontend(zun, L"-: dump dump.txt", folder.path());
    EXPECT_EQ(dump.exit_code, 0u) << dump.out;
    EXPECT_EQ(ScratchFolder::read(folder.file(L"dump.txt")), written);

    ScratchFolder::write(zun + L".usertext", "text application_name {Befehl}\r\n");
    FrontEndRun banner = run_frontend(zun, L"", folder.path());
    EXPECT_EQ(banner.out.rfind("Befehl\r\n", 0), 0u) << banner.out;
}

// The library is found through the class key first, and beside the program otherwise.
TEST(FrontEnd, FindsTheLibraryThroughTheClassKey) {
    ScratchFolder folder;
    std::wstring zun = folder.copy_from_bin(L"zun.exe");
    SavedLibraryValue value;
    value.remove();
    FrontEndRun alone = run_frontend(zun, L"", folder.path());
    EXPECT_EQ(alone.exit_code, static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(alone.out, "");

    value.set(bin_directory() + L"\\zunapi.dll");
    FrontEndRun found = run_frontend(zun, L"-h", folder.path());
    EXPECT_EQ(found.exit_code, 0u);
    EXPECT_EQ(found.out, run_frontend(L"zun", L"-h").out);
}

// The entries as another program sees them: every one exported by name, the windowed ones
// splitting the command line they are given. The entry runs the front-end in this process, so
// the test runs in a child, with "commands_tests" as the command name.
TEST(FrontEndEntries, Child) {
    if (child_role() != "entries") GTEST_SKIP() << "runs as a child of FrontEndEntries.Exported";
    HMODULE library = LoadLibraryW((bin_directory() + L"\\zunapi.dll").c_str());
    ASSERT_NE(library, nullptr);
    for (const char* name : {"wmain", "zun_wmain", "zunhost_wmain", "zuninst_wmain",
                             "luminst_wmain", "lumcmd_wmain", "zun_wWinMain", "zunhost_wWinMain",
                             "zuninst_wWinMain", "luminst_wWinMain", "lumcmd_wWinMain"})
        EXPECT_NE(GetProcAddress(library, name), nullptr) << name;
    EXPECT_EQ(GetProcAddress(library, "wmain"), GetProcAddress(library, "zun_wmain"));

    using WindowEntry = int (*)(HINSTANCE, HINSTANCE, const wchar_t*);
    auto entry = reinterpret_cast<WindowEntry>(
        reinterpret_cast<void*>(GetProcAddress(library, "zun_wWinMain")));
    EXPECT_EQ(entry(nullptr, nullptr, L"  \"no such\"  \"\\\"quoted\\\"\" "), -1);
}

TEST(FrontEndEntries, Exported) {
    ChildResult child = run_child("FrontEndEntries.Child", "entries");
    ASSERT_TRUE(child.started);
    EXPECT_EQ(child.exit_code, 0u) << child.output;
    EXPECT_NE(child.output.find("ERROR: Unknown command \"no such\".\r\n"), std::string::npos)
        << child.output;
}
