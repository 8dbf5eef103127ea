// Startup, single instance, command line and teardown.
#include "uploader/run.h"

#include "credentials/companion_library.h"
#include "debuglog/cdebuglog.h"
#include "platform/single_instance.h"
#include "run/upload_run.h"
#include "uploader/flush_log_dir.h"
#include "uploader/instance_name.h"

namespace kyd {

namespace {

constexpr wchar_t kForceFlush[] = L"Param_Force_Flush";
constexpr std::size_t kNameBufferCapacity = 256;

bool IsForced(const std::vector<std::wstring>& arguments) {
  return arguments.size() == 4 && arguments[3] == kForceFlush;
}

void RunOnce(platform::InstanceHandle instance, const std::vector<std::wstring>& arguments) {
  const std::wstring& tenant = arguments[1];
  const std::wstring& log_dir = arguments[2];
  Log().SetName(FormatBounded(kNameBufferCapacity, L"KydUploaderDebug").c_str());
  Log().WriteLogW(L"*** EXECUTE LOGUPLOAD *** Tenant [%s] LogDir [%s]", tenant, log_dir);
  const bool force = IsForced(arguments);
  if (force) {
    Log().WriteLogW(L"Force Flush");
  }
  UploadRun run;
  run.tenant = tenant;
  run.logDir = log_dir;
  run.instance = instance;
  run.report.instance = instance;
  if (LoadCompanionLibrary(run)) {
    FlushLogDir(run, force);
  }
}

}  // namespace

int RunUploader(platform::InstanceHandle instance, const ArgumentSource& split_arguments) {
  corvid::RegisterModuleLog();  // before anything else, so that every later step can log
  const platform::SingleInstance only_copy(kInstanceName);
  if (!only_copy.IsOwner()) {
    return 0;
  }
  const std::optional<std::vector<std::wstring>> arguments = split_arguments();
  if (arguments && (arguments->size() == 3 || arguments->size() == 4)) {
    RunOnce(instance, *arguments);
  }
  return 0;
}

}  // namespace kyd
