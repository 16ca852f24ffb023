// A folder that goes with the test. Names of its own keep runs apart that use one machine at a
// time.
#ifndef TESTS_FOLDER_H
#define TESTS_FOLDER_H

#include <cstdlib>
#include <filesystem>
#include <string>

struct Folder {
    Folder() {
        path = std::filesystem::temp_directory_path() / "kspool-test-XXXXXX";
        if (mkdtemp(path.data()) == nullptr) abort();
    }
    ~Folder() { std::filesystem::remove_all(path); }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    std::string path;
};

#endif
