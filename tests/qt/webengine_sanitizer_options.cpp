// AddressSanitizer settings for the programs that run Qt WebEngine. Chromium inside it frees some
// objects through a pointer to a base of another size and keeps a few allocations (its own and
// fontconfig's) until exit; both are reported from the libraries' code, not from ours. Only the size
// check is off, and only those libraries' leaks are suppressed: every other check stays on for the
// code under test. Without a sanitizer nothing calls these functions.

extern "C" {

__attribute__((used, visibility("default"))) const char* __asan_default_options() {
    return "new_delete_type_mismatch=0";
}

__attribute__((used, visibility("default"))) const char* __lsan_default_suppressions() {
    return "leak:libQt6WebEngineCore.so\n"
           "leak:libfontconfig.so\n";
}
}
