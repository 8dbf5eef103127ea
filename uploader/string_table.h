// The text resources of the program, by identifier. Included by C++ and by the resource compiler,
// so that each text is written once; spaces are significant.

// The resource compiler does not join literals.
// clang-format off

#define KYD_TEXT_RESULT_TIME 101
#define KYD_TEXT_101 \
  "<< Upload Result >>\r\n [Execution time]\r\n   %04d:%02d:%02d %02d:%02d:%02d\r\n\r\n"

#define KYD_TEXT_RESULT_COUNTS 102
#define KYD_TEXT_102 \
  " [User folder information]\r\n   Number of folders (users)\r\n      Total                   : %d\r\n      Upload target           : %d\r\n      Not subject to upload   : %d\r\n   Number of log files\r\n      Upload success  : %d\r\n      Upload error    : %d\r\n\r\n"

#define KYD_TEXT_RESULT_ERRORS 103
#define KYD_TEXT_103 \
  " [Error file information]\r\n   Upload folder path : %s\r\n   Upload errors occurred [Folder / Number of errors]\r\n"

// clang-format on
