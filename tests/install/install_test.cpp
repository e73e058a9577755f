// What `cmake --install` leaves is what a daemon's author can build on, and uninstalling it leaves
// what was there before.
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "examples/program.hpp"
#include "support/elf.hpp"
#include "support/process.hpp"

using namespace vyt::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAreArray;
namespace fs = std::filesystem;

namespace {

const std::string source_dir = VYT_SOURCE_DIR;
const std::string binary_dir = VYT_BINARY_DIR;

// Every path below a directory, with the contents of the files.
std::map<std::string, std::string> tree(const std::string &root)
{
    std::map<std::string, std::string> found;
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        const std::string path = fs::relative(entry.path(), root);
        found[path] = entry.is_directory() ? "directory" : read_file(entry.path());
    }
    return found;
}

// The directory below the root that holds the file of this name.
std::string directory_of(const std::string &root, const std::string &name)
{
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        if (entry.path().filename() == name)
            return entry.path().parent_path();
    }
    ADD_FAILURE() << name << " is not below " << root;
    return "";
}

std::string first_line(const std::string &path)
{
    const std::string text = read_file(path);
    return text.substr(0, text.find('\n'));
}

std::string version()
{
    return first_line(source_dir + "/VERSION");
}

// An installation is noted in the build tree. A user's own notes are put aside meanwhile.
class Install : public ::testing::Test {
  protected:
    Install()
    {
        for (const char *name : {"DESTDIR", "PKG_CONFIG_PATH", "PKG_CONFIG_SYSROOT_DIR"})
            unsetenv(name);
        move_notes(binary_dir, aside.path());
    }
    ~Install() override
    {
        TempDir ours;
        move_notes(binary_dir, ours.path());
        move_notes(aside.path(), binary_dir);
    }

    static Outcome shell(const std::string &command) { return run({"/bin/sh", "-c", command}); }
    // Runs what must succeed; answers what it said.
    static std::string said_by(const std::string &command)
    {
        const Outcome outcome = shell(command);
        EXPECT_EQ(outcome.status, 0) << command << "\n" << outcome.output << outcome.errors;
        return outcome.output;
    }
    static void install(const std::string &prefix, const std::string &options = "",
                        const std::string &environment = "")
    {
        said_by(environment + " cmake --install '" + binary_dir + "' --prefix " + prefix + " " +
                options);
    }
    static Outcome uninstall(const std::string &environment = "")
    {
        return shell(environment + " cmake --build '" + binary_dir + "' --target uninstall");
    }
    // Builds the C client in the test's directory, with these words for pkg-config's environment.
    void build_c_client(const std::string &environment, const std::string &options = "")
    {
        said_by("flags=$(" + environment +
                " pkg-config --cflags --libs VYThelpers) && cc -std=c11 " +
                "-Wall -Wextra -Werror '" + source_dir + "/tests/install/client/client.c' $flags " +
                options + " -o " + dir / "client");
    }
    // Builds the C++ client with the package below the prefix, runs it, answers what it said.
    std::string cxx_client(const std::string &prefix)
    {
        said_by("cmake -S '" + source_dir + "/tests/install/client' -B " + dir / "cxx" +
                " -DCMAKE_PREFIX_PATH=" + prefix + " && cmake --build " + dir / "cxx");
        return said_by(dir / "cxx/client");
    }

    TempDir dir;
    const std::string prefix = dir / "prefix";
    const std::string stage = dir / "stage";

  private:
    static void move_notes(const std::string &from, const std::string &to)
    {
        static const std::regex note("install_(manifest.*|directories)\\.txt");
        std::vector<fs::path> notes;
        for (const auto &entry : fs::directory_iterator(from)) {
            if (std::regex_match(entry.path().filename().string(), note))
                notes.push_back(entry.path());
        }
        for (const fs::path &path : notes) {
            fs::copy_file(path, to / path.filename());
            fs::remove(path);
        }
    }

    TempDir aside;
};

const char c_client_says[] = "CLIENT Master -1\n";

} // namespace

TEST(Version, IsTheSameWhereverItStands)
{
    EXPECT_THAT(version(), ::testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+"));
    EXPECT_THAT(read_file(source_dir + "/CHANGELOG.md"), HasSubstr("\n## " + version() + " "));
    EXPECT_EQ(first_line(source_dir + "/packaging/debian/changelog")
                  .find("vythelpers (" + version() + ") "),
              0u);
}

TEST_F(Install, PutsTheLibrariesTheHeadersAndTheFilesThatFindThem)
{
    install(prefix);
    const std::string lib =
        fs::relative(directory_of(prefix, "VYThelpers.pc"), prefix).parent_path();
    const std::string cmake = lib + "/cmake/VYThelpers/VYThelpers";
    std::vector<std::string> expected = {
        lib + "/libVYThelpers.so", lib + "/libVYTplatform.so",    lib + "/pkgconfig/VYThelpers.pc",
        cmake + "Config.cmake",    cmake + "ConfigVersion.cmake", cmake + "Targets.cmake"};
    for (const auto &header : fs::directory_iterator(source_dir + "/include"))
        expected.push_back("include/" + header.path().filename().string());

    // The file of the build type has the type's name; the reference is there where it was built.
    static const std::regex varies("share/.*|.*/VYThelpersTargets-[a-z]+\\.cmake");
    std::vector<std::string> installed;
    for (const auto &[path, contents] : tree(prefix)) {
        if (contents != "directory" && !std::regex_match(path, varies))
            installed.push_back(path);
    }
    EXPECT_THAT(installed, UnorderedElementsAreArray(expected));
}

TEST_F(Install, ASharedObjectSearchesNoPathOfTheBuildTree)
{
    install(prefix);
    const std::string lib = directory_of(prefix, "libVYThelpers.so");
    EXPECT_THAT(Elf(lib + "/libVYThelpers.so").dynamic_texts(DT_RUNPATH), ElementsAre("$ORIGIN"));
    EXPECT_THAT(Elf(lib + "/libVYTplatform.so").dynamic_texts(DT_RUNPATH), IsEmpty());
    for (const char *name : {"/libVYThelpers.so", "/libVYTplatform.so"})
        EXPECT_THAT(Elf(lib + name).dynamic_texts(DT_RPATH), IsEmpty());
}

TEST_F(Install, NoTextNamesTheBuildTreeOrTheSourceTree)
{
    install("/usr", "", "DESTDIR=" + stage);
    for (const auto &[path, contents] : tree(stage)) {
        if (path.ends_with(".so"))
            continue;
        for (const std::string &place : {source_dir, binary_dir, stage})
            EXPECT_EQ(contents.find(place), std::string::npos) << path << " names " << place;
    }
}

TEST_F(Install, PkgConfigAsksForTheLibraryAlone)
{
    install(prefix);
    const std::string pkgconfig =
        "PKG_CONFIG_PATH=" + directory_of(prefix, "VYThelpers.pc") + " pkg-config VYThelpers ";
    EXPECT_EQ(said_by(pkgconfig + "--libs-only-l"), "-lVYThelpers \n");
    EXPECT_EQ(said_by(pkgconfig + "--modversion"), version() + "\n");
}

TEST_F(Install, ACClientBuildsAgainstAPrefixAndRuns)
{
    install(prefix);
    const std::string lib = directory_of(prefix, "libVYThelpers.so");
    // The client knows where the library is; that one knows where its stand-in is.
    build_c_client("PKG_CONFIG_PATH=" + lib + "/pkgconfig", "-Wl,-rpath," + lib);
    EXPECT_EQ(said_by(dir / "client"), c_client_says);
}

TEST_F(Install, ACClientBuildsAgainstAStagingRootAndRuns)
{
    install("/usr", "", "DESTDIR=" + stage);
    const std::string lib = directory_of(stage, "libVYThelpers.so");
    EXPECT_EQ(first_line(lib + "/pkgconfig/VYThelpers.pc"), "prefix=/usr");
    build_c_client("PKG_CONFIG_SYSROOT_DIR=" + stage + " PKG_CONFIG_PATH=" + lib + "/pkgconfig");
    EXPECT_EQ(said_by("LD_LIBRARY_PATH=" + lib + " " + dir / "client"), c_client_says);
}

TEST_F(Install, ACxxClientFindsThePackageInAPrefixAndRuns)
{
    install(prefix);
    EXPECT_EQ(cxx_client(prefix), "CLIENT Master " + version() + "\n");
}

TEST_F(Install, ACxxClientFindsThePackageInATreeThatWasMoved)
{
    install("/usr", "", "DESTDIR=" + stage);
    fs::rename(stage + "/usr", dir / "moved");
    EXPECT_EQ(cxx_client(dir / "moved"), "CLIENT Master " + version() + "\n");
}

TEST_F(Install, EachComponentIsInstalledAlone)
{
    install(dir / "runtime", "--component runtime");
    install(dir / "standin", "--component standin");
    const auto files = [this](const std::string &component) {
        std::vector<std::string> names;
        for (const auto &entry : fs::recursive_directory_iterator(dir / component)) {
            if (!entry.is_directory())
                names.push_back(entry.path().filename());
        }
        return names;
    };
    EXPECT_THAT(files("runtime"), ElementsAre("libVYThelpers.so"));
    EXPECT_THAT(files("standin"), ElementsAre("libVYTplatform.so"));
}

TEST_F(Install, UninstallingRemovesThePrefixThatItMade)
{
    const auto before = tree(dir.path());
    install(prefix);
    const Outcome outcome = uninstall();
    EXPECT_EQ(outcome.status, 0) << outcome.errors;
    EXPECT_EQ(tree(dir.path()), before);
}

TEST_F(Install, UninstallingLeavesWhatWasThereBefore)
{
    install(prefix); // only to learn the names
    const std::string pkgconfig = directory_of(prefix, "VYThelpers.pc");
    ASSERT_EQ(uninstall().status, 0);
    fs::create_directories(prefix + "/include"); // empty, and not ours
    fs::create_directories(pkgconfig);
    write_file(pkgconfig + "/other.pc", "Name: other\n");
    const auto before = tree(prefix);

    install(prefix);
    install(prefix); // once more changes nothing
    write_file(directory_of(prefix, "VYThelpersConfig.cmake") + "/.other", "not ours");
    const Outcome outcome = uninstall();
    EXPECT_EQ(outcome.status, 0) << outcome.errors;

    const std::string other = directory_of(prefix, ".other");
    EXPECT_EQ(read_file(other + "/.other"), "not ours");
    fs::remove_all(fs::path(other).parent_path());
    EXPECT_EQ(tree(prefix), before);
}

TEST_F(Install, UninstallingFromAStagingRootTakesTheSameDestdir)
{
    fs::create_directories(stage + "/usr");
    const auto before = tree(stage);
    install("/usr", "", "DESTDIR=" + stage);
    const auto installed = tree(stage);

    const Outcome without = uninstall("DESTDIR=" + dir / "nowhere");
    EXPECT_NE(without.status, 0);
    EXPECT_THAT(without.errors, HasSubstr("Was another DESTDIR given"));
    EXPECT_EQ(tree(stage), installed);

    const Outcome with = uninstall("DESTDIR=" + stage);
    EXPECT_EQ(with.status, 0) << with.output;
    EXPECT_EQ(tree(stage), before);
}

TEST_F(Install, UninstallingWhereNothingIsInstalledSaysSo)
{
    const Outcome outcome = uninstall();
    EXPECT_NE(outcome.status, 0);
    EXPECT_THAT(outcome.errors, HasSubstr("Nothing is installed from this build."));
}
