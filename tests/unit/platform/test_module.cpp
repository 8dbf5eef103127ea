// A library for the tests of the loader.
#ifdef _WIN32
#define KYD_TEST_EXPORT extern "C" __declspec(dllexport)
#else
#define KYD_TEST_EXPORT extern "C" __attribute__((visibility("default")))
#endif

KYD_TEST_EXPORT int KydTestAnswer() {
  return 42;
}
