// The front-ends as a person meets them: each executable run as a real process, finding the
// real library and dispatching against its own command list.
#include <gtest/gtest.h>

#include "usertext/program_run.h"

namespace {

// What a front-end of the bin folder shows.
std::string shown(const wchar_t* program, const std::wstring& arguments) {
    return run_program(test_program_directory() + L"\\" + program + L".exe", arguments).shown();
}

} // namespace

TEST(FrontEnd, BannerAndHelpShowTheFrontEndsCommandsInOrder) {
    struct {
        const wchar_t* program;
        std::string commands; // as the general help lists them
    } front_ends[] = {
        {L"zun", "flush formatters list mount register uninstall unmount unregister "},
        {L"zunhost", "createsysmount findformatter mount serve "},
        {L"zuninst", "install uninstall "},
        {L"luminst", "sysinstall sysuninstall "},
        {L"lumcmd", "list sysuninstall unmount "},
    };
    for (const auto& front_end : front_ends) {
        std::string name = narrow(front_end.program);
        // zunhost is a windowed program whose entry gives -1 whatever the command did.
        std::string success = name == "zunhost" ? "-1 " : "0 ";
        EXPECT_EQ(shown(front_end.program, L""),
                  success +
                      "Command - Kesti File Mount\r\n"
                      "Copyright (C) 2012 Kesti File Mount developers.\r\n"
                      "zun.1.0.0.165.x64.release - 2012.05.16\r\nFor help run: " +
                      name + " -h\r\n");

        std::string help = shown(front_end.program, L"-h");
        EXPECT_TRUE(help.starts_with(success + name + " <command> [...]\r\ncommands:\r\n")) << help;
        EXPECT_TRUE(help.ends_with("For more help run: " + name + " <command> -h\r\n"));
        std::string listed;
        for (size_t at = help.find("\r\n  "); at != npos; at = help.find("\r\n  ", at + 1))
            listed += help.substr(at + 4, help.find("  ", at + 4) - at - 4) + " ";
        EXPECT_EQ(listed, front_end.commands);
    }
}

TEST(FrontEnd, HelpWordsAndLongHelp) {
    std::string help = shown(L"zun", L"-h"), long_help = shown(L"zun", L"help mount");
    EXPECT_NE(help.find("\r\n  mount  Mount file.\r\n"), npos) << help;
    EXPECT_TRUE(
        long_help.starts_with("0 syntax: zun mount [<switch> ...] <file>\r\nswitches:\r\n"));
    // Every help word in any case, and before an unknown name, gives the general help.
    for (const wchar_t* words : {L"/?", L"/H", L"/help", L"?", L"-?", L"HELP", L"-help", L"--Help",
                                 L"help nosuchcommand", L"-h -h"})
        EXPECT_EQ(shown(L"zun", words), help) << words;
    // The long help names the registered command however it was typed.
    for (const wchar_t* words : {L"mount -h", L"MOUNT -H", L"/? Mount", L"mount /? disk.img"})
        EXPECT_EQ(shown(L"zun", words), long_help) << words;
    // Another front-end names itself; a text without a final line end is printed as it stands.
    EXPECT_TRUE(shown(L"zunhost", L"Mount --help")
                    .starts_with("-1 syntax: zunhost mount [<switch> ...] <file>\r\n"));
    EXPECT_EQ(shown(L"lumcmd", L"sysuninstall -h"), "0 syntax: lumcmd sysuninstall");
    // Quotes and blanks as the windowed entry splits them.
    EXPECT_TRUE(shown(L"zunhost", L"\"help\"   \"serve\"")
                    .starts_with("-1 syntax: zunhost serve [<switch> ...] -f <formatter name>"));
}

TEST(FrontEnd, UnknownAndUnavailableCommands) {
    std::string long_name(30000, 'x');
    std::pair<std::wstring, std::string> cases[] = {
        {L"mounts", "mounts"},
        {L"mounts -h", "mounts"}, // a help word after an unknown name asks for no help
        {L"serve", "serve"},      // zunhost's
        {L"\"\"", ""},
        {std::wstring(long_name.begin(), long_name.end()), long_name},
    };
    for (const auto& [arguments, name] : cases)
        EXPECT_EQ(shown(L"zun", arguments), "-1 ERROR: Unknown command \"" + name + "\".\r\n");
    // A command whose work this build lacks says so; a help word further on is its argument.
    EXPECT_EQ(shown(L"zun", L"Mount disk.img -h"),
              "-1 ERROR: The command \"Mount\" is not available in this build.\r\n");
}

// "-: init" writes the registered texts; the same file beside the program, loaded and dumped,
// comes back byte for byte; and a text of its own is what the program shows.
TEST(FrontEnd, InitWritesTextsThatLoadBackUnchanged) {
    ProgramCopy zun(L"zun.exe", {L"zunapi.dll"});
    EXPECT_EQ(zun.run(L"-: init init.txt").shown(), "0 ");
    std::string written = zun.read(L"init.txt");
    EXPECT_TRUE(written.starts_with("\xEF\xBB\xBF\r\n# utf8\r\n\r\n"));
    for (const char* entry : {"\r\ntext banner {%(application_name)\r\n%(copyright)\r\n",
                              "\r\ntext mount_short_help {Mount file.\r\n}\r\n\r\n",
                              "\r\ntext command_name {zun}\r\n"}) // set before the writing
        EXPECT_NE(written.find(entry), npos) << entry;

    zun.translate(written);
    EXPECT_EQ(zun.run(L"-: dump dump.txt").shown(), "0 ");
    EXPECT_EQ(zun.read(L"dump.txt"), written);
    zun.translate("text application_name {Befehl}\r\n");
    EXPECT_TRUE(zun.run(L"").out.starts_with("Befehl\r\n"));
}

// The library is found through the class key first, and beside the program otherwise.
TEST(FrontEnd, FindsTheLibraryThroughTheClassKey) {
    ProgramCopy zun(L"zun.exe");
    SavedRegistryValue value(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Classes\\KestiFileMount", L"zunapi");
    value.remove();
    EXPECT_EQ(zun.run(L"").shown(), "126 "); // ERROR_MOD_NOT_FOUND
    value.set(test_program_directory() + L"\\zunapi.dll");
    EXPECT_EQ(zun.run(L"-h").shown(), shown(L"zun", L"-h"));
}

// Every entry is exported by name; the thin executables use some of them, other programs the
// rest.
TEST(FrontEnd, EveryEntryIsExported) {
    HMODULE library = LoadLibraryW((test_program_directory() + L"\\zunapi.dll").c_str());
    ASSERT_NE(library, nullptr);
    for (std::string name : {"zun", "zunhost", "zuninst", "luminst", "lumcmd"}) {
        EXPECT_NE(GetProcAddress(library, (name + "_wmain").c_str()), nullptr) << name;
        EXPECT_NE(GetProcAddress(library, (name + "_wWinMain").c_str()), nullptr) << name;
    }
    EXPECT_EQ(GetProcAddress(library, "wmain"), GetProcAddress(library, "zun_wmain"));
    FreeLibrary(library);
}
