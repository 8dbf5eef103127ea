// Iterates over the account folders: upload first, then, if requested, the force flush.
#include "uploader/flush_log_dir.h"

#include <exception>

#include "credentials/credential_file.h"
#include "debuglog/cdebuglog.h"
#include "logtree/log_tree.h"
#include "platform/error.h"
#include "upload/upload_one_user.h"
#include "uploader/result_file.h"

namespace kyd {

namespace {

constexpr char kRuler[] = "<< ------------------------------------------------------------ >>";

// Processes one account: its credentials, then its files. Only kRunMustEnd ends the loop.
int HandleAccount(UploadRun& run, const std::wstring& account, UploadAuthData& credentials) {
  ++run.accountCount;
  const int result = ReadUploadAuthData(run, account, credentials);
  if (result == kSucceeded) {
    return UploadOneUser(run, account, credentials);
  }
  if (result == kFailed) {
    ++run.noSendCount;
  }
  return result;
}

void LogResult(const UploadRun& run, int result) {
  if (result == kRunMustEnd) {
    Log().WriteLogA("<< Upload >> EXCEPTION");
    return;
  }
  Log().WriteLogA("<< Result >> accounts:[%d] send :[%d] no send :[%d]", run.accountCount,
                  run.sendCount, run.noSendCount);
  if (run.fileOkCount != 0 || run.fileErrorCount != 0) {
    Log().WriteLogA("<< Result >> files send ok:[%d] send error:[%d]", run.fileOkCount,
                    run.fileErrorCount);
  }
}

void CleanupFile(const LogTree& tree, const std::wstring& account, const std::wstring& file) {
  const bool moved = tree.ArchiveUnsent(account, file);
  // Both messages contain the number, which is arbitrary after a success.
  const unsigned error = platform::LastError();
  Log().WriteLogA(moved ? "<Cleanup MOVE> Move OK [%d]" : "<Cleanup MOVE> Move NG [%d]", error);
}

}  // namespace

void FlushLogDir(UploadRun& run, bool force) {
  Log().WriteLogA(kRuler);
  UploadAuthData credentials;  // reused for every account
  int result = kFailed;
  try {
    // A folder that cannot be searched has no accounts. The search is closed after the result file.
    const platform::FileSearch search =
        LogTree(run.logDir).ForEachAccount([&](const std::wstring& account) {
          result = HandleAccount(run, account, credentials);
          return result != kRunMustEnd;
        });
    OutputResult(run.report, run.logDir, run.accountCount, run.sendCount, run.noSendCount,
                 run.fileOkCount, run.fileErrorCount);
  } catch (const std::exception&) {
    Log().WriteLogA("<FlushLogDir> exception");
    result = kRunMustEnd;
  } catch (...) {
    Log().WriteLogA("<FlushLogDir> exception etc");
    result = kRunMustEnd;
  }
  if (force) {
    SearchUploadDir(run);
  }
  LogResult(run, result);
  Log().WriteLogA(kRuler);
  Wipe(credentials);
}

void SearchUploadDir(const UploadRun& run) {
  try {
    Log().WriteLogA("<< SearchUploadDir >> start");
    // A folder that cannot be searched has no accounts.
    const platform::FileSearch search =
        LogTree(run.logDir).ForEachAccount([&run](const std::wstring& account) {
          CleanupUploadDir(run, account);
          return true;
        });
    Log().WriteLogA("<< SearchUploadDir >> end");
  } catch (const std::exception&) {
    Log().WriteLogA("<SearchUploadDir> exception");
  } catch (...) {
    Log().WriteLogA("<SearchUploadDir> exception etc");
  }
}

int CleanupUploadDir(const UploadRun& run, const std::wstring& account) {
  try {
    Log().WriteLogW(L"<CleanupUploadDir> start [%s]", account);
    const LogTree tree(run.logDir);
    platform::FileSearch search = tree.WaitingFiles(account);
    for (bool found = search.First(); found; found = search.Next()) {
      CleanupFile(tree, account, search.Current().name);
    }
    Log().WriteLogW(L"<CleanupUploadDir> end [%s]", account);
  } catch (const std::exception&) {
    Log().WriteLogW(L"<CleanupUploadDir> exception [%s]", account);
  } catch (...) {
    Log().WriteLogW(L"<CleanupUploadDir> exception etc[%s]", account);
  }
  return 0;
}

}  // namespace kyd
