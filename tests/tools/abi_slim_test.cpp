// The accepted binary interface holds what daemons see, not what other libraries keep inside.
#include <gmock/gmock.h>

#include <cstdio>
#include <memory>
#include <string>

#include "support/process.hpp"

using namespace vyt::test;

namespace {

std::string slim(const std::string &types)
{
    const TempDir dir;
    const std::string dump = dir / "dump";
    write_file(dump, "<abi-corpus><abi-instr path='a.cpp'>" + types + "</abi-instr></abi-corpus>");
    const std::string command = "python3 '" VYT_SOURCE_DIR "/tools/abi_slim.py' " + dump;
    const std::unique_ptr<FILE, int (*)(FILE *)> out(popen(command.c_str(), "r"), pclose);
    std::string said;
    for (int c; (c = fgetc(out.get())) != EOF;)
        said += char(c);
    return said;
}

std::string whole(const std::string &types)
{
    return "<abi-corpus>\n  <abi-instr path=\"a.cpp\">\n" + types +
           "  </abi-instr>\n</abi-corpus>\n";
}

} // namespace

TEST(AbiSlim, OwnRecordsAndWhatTheyAreMadeOfStay)
{
    EXPECT_EQ(slim("<type-decl name='int' size-in-bits='32' id='1'/>"
                   "<class-decl name='lh_bf' size-in-bits='32' id='2'>"
                   "<data-member><var-decl name='size' type-id='1'/></data-member></class-decl>"
                   "<function-decl name='f'><parameter type-id='2'/></function-decl>"),
              whole("    <type-decl name=\"int\" size-in-bits=\"32\" id=\"1\" />\n"
                    "    <class-decl name=\"lh_bf\" size-in-bits=\"32\" id=\"2\">\n"
                    "      <data-member>\n"
                    "        <var-decl name=\"size\" type-id=\"1\" />\n"
                    "      </data-member>\n"
                    "    </class-decl>\n"
                    "    <function-decl name=\"f\">\n"
                    "      <parameter type-id=\"2\" />\n"
                    "    </function-decl>\n"));
}

TEST(AbiSlim, OtherLibrariesRecordsBecomeNamesAndTheirInsidesGo)
{
    EXPECT_EQ(
        slim("<type-decl name='int' size-in-bits='32' id='1'/>"
             "<typedef-decl name='inner' type-id='1' id='2'/>"
             "<class-decl name='yaml_event_s' size-in-bits='32' id='3'>"
             "<data-member><var-decl name='type' type-id='2'/></data-member></class-decl>"
             "<pointer-type-def type-id='3' size-in-bits='64' id='4'/>"
             "<function-decl name='f'><parameter type-id='4'/></function-decl>"),
        whole("    <class-decl name=\"yaml_event_s\" id=\"3\" is-declaration-only=\"yes\" />\n"
              "    <pointer-type-def type-id=\"3\" size-in-bits=\"64\" id=\"4\" />\n"
              "    <function-decl name=\"f\">\n"
              "      <parameter type-id=\"4\" />\n"
              "    </function-decl>\n"));
}
