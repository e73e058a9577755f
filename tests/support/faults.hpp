// Faults: calls of the library into the C library, counted, watched and made to fail.
//
// The library's own links to the C library are redirected through this fixture, so only its calls
// are seen, never the test's. A call is named by its symbol: "malloc", "open", "read", "mmap" ...
// The list of known calls stands in faults.cpp; an unknown name throws.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace vyt::test {

// Disarms everything when it is made and when it ends.
class Faults {
  public:
    // `also` names a second library whose calls are seen, by a part of its file's name.
    explicit Faults(const char *also = nullptr);
    ~Faults();
    Faults(const Faults &) = delete;
    Faults &operator=(const Faults &) = delete;

    // Lets the nth call from now (1 is the next one) fail with this errno; the others go through.
    void fail(const std::string &call, int error, unsigned nth = 1);
    // The same, but the call does its work first, as a failing `close` does.
    void fail_late(const std::string &call, int error, unsigned nth = 1);
    // Lets the nth transfer from now (read, write, sendfile, fread, fwrite) be half as long.
    void shorten(const std::string &call, unsigned nth = 1);
    // Lets every call from now on fail with this errno.
    void fail_always(const std::string &call, int error);
    // Lets every call from now on go through.
    void disarm(const std::string &call);
    // Lets the nth allocation from now fail with ENOMEM, whichever call makes it: those that allocate
    // stand at the head of faults.cpp, and each counts as one.
    void fail_allocation(unsigned nth);
    // Runs the action before every call from now on, with the call's number counted from 1.
    void before(const std::string &call, std::function<void(unsigned)> action);
    // Replaces the call: the function must have its signature.
    void replace(const std::string &call, void *function);
    // How often it was called since the fixture was made or clear() was called.
    unsigned calls(const std::string &call) const;
    // The same for all calls that were made at all.
    std::map<std::string, unsigned> all_calls() const;
    // Whether the call is one that this fixture sees.
    static bool know(const std::string &call);
    // What the library took since then (memory, streams, directories, mappings) and has not given
    // back: all of it by the names of the calls that gave it, or what one call gave.
    std::vector<std::string> held() const;
    std::vector<void *> held_by(const std::string &call) const;
    // Says that the test itself gave back what the library handed out.
    void given_back(const void *block);
    // True once the fault that was armed last has happened.
    bool happened() const;
    // Disarms everything and forgets the counts.
    void clear();
};

} // namespace vyt::test
