// A folder that goes with the test.
#ifndef TESTS_FOLDER_H
#define TESTS_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <string>

struct Folder {
    Folder() {
        char name[] = "/tmp/kspool-test-XXXXXX";
        path = mkdtemp(name);
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string path;
};

#endif
