#include <windows.h>

#ifdef __MINGW32__
// The linker takes the image's load configuration from this symbol. On Windows 10 and later the flag makes the loader
// look for the imported DLLs, and for those that these import, in System32 only: never beside the program, which may
// lie in a downloads folder, and never in the current directory. It is read from the file, where no constructor has
// run.
extern "C" const IMAGE_LOAD_CONFIG_DIRECTORY64 _load_config_used;
constinit const IMAGE_LOAD_CONFIG_DIRECTORY64 _load_config_used = [] {
    IMAGE_LOAD_CONFIG_DIRECTORY64 configuration{};
    configuration.Size = sizeof configuration;
    // The field that the headers here still call reserved holds the dependent-load flags.
    configuration.Reserved1 = LOAD_LIBRARY_SEARCH_SYSTEM32;
    return configuration;
}();
#endif
