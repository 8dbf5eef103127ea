// What Windows Installer calls while the package is installed or removed: it cannot tell by itself
// whether an upload is running, and knows nothing of scheduled tasks.
#include <windows.h>

#include <msi.h>
#include <msiquery.h>

#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "packaging/windows/task_definition.h"

namespace {

using kyd::setup::AsArgument;

// The name by which the program makes sure that it runs once.
constexpr wchar_t kInstanceName[] = L"Global\\VeltraneKydLogUploaderMutexString";
// The entry of the setup program of earlier versions, which did not use Windows Installer.
constexpr wchar_t kSetupEntry[] =
    L"Software\\Microsoft\\Windows\\CurrentVersion\\Uninstall\\KydLogUploader";
constexpr wchar_t kTaskName[] = L"Veltrane\\KydLogUploader";
constexpr wchar_t kDefinition[] = L"deploy\\windows\\KydLogUploader.task.xml";
// Below the system folder: the Task Scheduler has a file for each task.
constexpr wchar_t kRegistered[] = L"\\Tasks\\";
// Beside the program, where only administrators can write.
constexpr wchar_t kOwnDefinition[] = L"KydLogUploader.task.tmp";
constexpr DWORD kLongestSchTasks = 5 * 60 * 1000;  // milliseconds
// Separates the values that are passed to the deferred action; no value can contain it.
constexpr wchar_t kSeparator = L'|';

std::wstring Property(MSIHANDLE install, const wchar_t* name) {
  DWORD length = 0;
  wchar_t nothing[] = L"";
  if (MsiGetPropertyW(install, name, nothing, &length) != ERROR_MORE_DATA) {
    return {};
  }
  std::vector<wchar_t> text(++length);
  if (MsiGetPropertyW(install, name, text.data(), &length) != ERROR_SUCCESS) {
    return {};
  }
  return {text.data(), length};
}

// Shows a message, or writes it to the installer's log of a silent installation. The result ends
// the installation.
UINT Refuse(MSIHANDLE install, const std::wstring& message) {
  const MSIHANDLE record = MsiCreateRecord(1);
  MsiRecordSetStringW(record, 0, L"[1]");
  MsiRecordSetStringW(record, 1, message.c_str());
  MsiProcessMessage(install, INSTALLMESSAGE_ERROR, record);
  MsiCloseHandle(record);
  return ERROR_INSTALL_FAILURE;
}

// Takes a name unless it is taken. Deliberately never released: it is free again when the
// installer's process for these actions ends.
bool Hold(const wchar_t* name) {
  const HANDLE mutex = CreateMutexW(nullptr, FALSE, name);
  const DWORD error = GetLastError();
  if (mutex == nullptr) {
    return false;
  }
  if (error == ERROR_ALREADY_EXISTS) {
    CloseHandle(mutex);
    return false;
  }
  return true;
}

// The uninstaller of an installation by the setup program of earlier versions, or an empty path. An
// entry without its uninstaller is left over from one whose folder was deleted.
std::wstring SetupUninstaller() {
  wchar_t text[MAX_PATH + 2] = {};
  DWORD size = sizeof text;
  if (RegGetValueW(HKEY_LOCAL_MACHINE, kSetupEntry, L"UninstallString", RRF_RT_REG_SZ, nullptr,
                   text, &size) != ERROR_SUCCESS) {
    return {};
  }
  std::wstring path = text;
  if (path.size() >= 2 && path.front() == L'"' && path.back() == L'"') {
    path = path.substr(1, path.size() - 2);
  }
  return GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES ? path : std::wstring();
}

// A running program cannot be opened for writing. Without the right to write, which an attended
// installation does not have at this point, a running program is not noticed.
bool IsInUse(const std::wstring& path) {
  const HANDLE file =
      CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    return GetLastError() == ERROR_SHARING_VIOLATION || GetLastError() == ERROR_LOCK_VIOLATION;
  }
  CloseHandle(file);
  return false;
}

std::wstring SystemFolder() {
  wchar_t folder[MAX_PATH];
  return GetSystemDirectoryW(folder, MAX_PATH) != 0 ? folder : std::wstring();
}

// Calls schtasks for the program's task. Its exit code, or std::nullopt if it could not be started
// or did not end. Its input is empty, so that it cannot ask for a password.
std::optional<DWORD> RunSchTasks(const std::wstring& command, const std::wstring& arguments = {}) {
  const std::wstring folder = SystemFolder();
  if (folder.empty()) {
    return std::nullopt;
  }
  const std::wstring program = folder + L"\\schtasks.exe";
  std::wstring line =
      AsArgument(program) + L' ' + command + L" /F /TN " + kTaskName + L' ' + arguments;
  SECURITY_ATTRIBUTES inherited = {sizeof inherited, nullptr, TRUE};
  const HANDLE nothing =
      CreateFileW(L"NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                  &inherited, OPEN_EXISTING, 0, nullptr);
  STARTUPINFOW startup = {};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = startup.hStdOutput = startup.hStdError = nothing;
  PROCESS_INFORMATION process = {};
  const BOOL started =
      CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW,
                     nullptr, folder.c_str(), &startup, &process);
  if (nothing != INVALID_HANDLE_VALUE) {
    CloseHandle(nothing);
  }
  if (started == 0) {
    return std::nullopt;
  }
  DWORD code = 0;
  const bool ended = WaitForSingleObject(process.hProcess, kLongestSchTasks) == WAIT_OBJECT_0 &&
                     GetExitCodeProcess(process.hProcess, &code) != 0;
  if (!ended) {
    TerminateProcess(process.hProcess, ERROR_TIMEOUT);
  }
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return ended ? std::optional(code) : std::nullopt;
}

std::optional<DWORD> CreateTask(const std::wstring& definition) {
  return RunSchTasks(L"/Create", L"/XML " + AsArgument(definition));
}

std::optional<DWORD> DeleteTask() {
  return RunSchTasks(L"/Delete");
}

// The definition as it is installed, which is ASCII.
std::wstring ReadDefinition(const std::wstring& path) {
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                  OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    return {};
  }
  std::string content(64 * 1024, '\0');
  DWORD count = 0;
  const BOOL was_read =
      ReadFile(file, content.data(), static_cast<DWORD>(content.size()), &count, nullptr);
  CloseHandle(file);
  return was_read != 0 ? std::wstring(content.begin(), content.begin() + count) : std::wstring();
}

bool WriteText(const std::wstring& path, const std::wstring& text) {
  const HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS,
                                  FILE_ATTRIBUTE_NORMAL, nullptr);
  if (file == INVALID_HANDLE_VALUE) {
    return false;
  }
  const auto size = static_cast<DWORD>(text.size() * sizeof(wchar_t));
  DWORD written = 0;
  const BOOL done = WriteFile(file, text.data(), size, &written, nullptr);
  CloseHandle(file);
  return done != 0 && written == size;
}

// UTF-16 with its mark, because paths can hold any character.
bool WriteDefinition(const std::wstring& path, const std::wstring& text) {
  return WriteText(path, L'\xFEFF' + text);
}

// Copies the definition of the registered task. If there is no task, the copy is empty.
bool SaveRegisteredTask(const std::wstring& path) {
  const std::wstring registered = SystemFolder() + kRegistered + kTaskName;
  if (CopyFileW(registered.c_str(), path.c_str(), TRUE) != 0) {
    return true;
  }
  const DWORD error = GetLastError();
  return (error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND) && WriteText(path, {});
}

}  // namespace

// Immediate, before anything is changed: refuses while a program runs, and checks the properties.
// Not called when a newer version removes this one: the newer one's action holds the name already.
extern "C" UINT __stdcall CheckSetup(MSIHANDLE install) {
  const std::wstring folder = Property(install, L"InstallFolder");
  const std::wstring uninstaller = SetupUninstaller();
  if (Property(install, L"REMOVE") != L"ALL" && !uninstaller.empty()) {
    return Refuse(
        install,
        L"KydLogUploader was installed by its earlier setup program. Remove it first with " +
            AsArgument(uninstaller) + L", and try again.");
  }
  // Fails while a program runs; one that is started from now on ends at once.
  if (!Hold(kInstanceName)) {
    return Refuse(
        install,
        L"KydLogUploader is running. Wait until it has ended, or end its task, and try again.");
  }
  for (const wchar_t* program : {L"KydLogUploader.exe", L"KydUploadStatus.exe"}) {
    if (IsInUse(folder + program)) {
      return Refuse(install,
                    folder + program + L" is in use. Wait until it has ended, and try again.");
    }
  }
  const std::wstring tenant = Property(install, L"TENANT");
  const std::wstring log_dir = Property(install, L"LOGDIR");
  if (tenant.empty() && log_dir.empty()) {
    return ERROR_SUCCESS;
  }
  if (tenant.empty() || log_dir.empty()) {
    return Refuse(install, L"TENANT and LOGDIR belong together: give both, or neither.");
  }
  if (!kyd::setup::IsTenant(tenant)) {
    return Refuse(install, L"TENANT has to be a host name, optionally with a port: " + tenant);
  }
  if (!kyd::setup::IsLogDir(log_dir)) {
    return Refuse(install, L"LOGDIR has to be an absolute path: " + log_dir);
  }
  // The definition that is replaced gets a name of its own: one that another installation could not
  // restore is kept.
  const std::wstring old =
      folder + L"KydLogUploader.task." + std::to_wstring(GetTickCount64()) + L".old";
  // A deferred action gets the property of its own name, and no other.
  for (const wchar_t* action : {L"RestoreTask", L"ForgetOldTask"}) {
    MsiSetPropertyW(install, action, old.c_str());
  }
  const std::wstring data = folder + kSeparator + old + kSeparator + tenant + kSeparator +
                            kyd::setup::WithoutTrailingSeparators(log_dir);
  return MsiSetPropertyW(install, L"RegisterTask", data.c_str());
}

// Deferred: registers the hourly task, or replaces it.
extern "C" UINT __stdcall RegisterTask(MSIHANDLE install) {
  std::wistringstream data(Property(install, L"CustomActionData"));
  std::wstring folder;
  std::wstring old;
  std::wstring tenant;
  std::wstring log_dir;
  for (std::wstring* value : {&folder, &old, &tenant, &log_dir}) {
    std::getline(data, *value, kSeparator);
  }
  if (log_dir.empty()) {
    return Refuse(install, L"The scheduled task was not registered: its settings are missing.");
  }
  const std::wstring definition =
      kyd::setup::WithArguments(ReadDefinition(folder + kDefinition), tenant, log_dir);
  const std::wstring own = folder + kOwnDefinition;
  if (definition.empty() || !WriteDefinition(own, definition)) {
    return Refuse(install,
                  L"The scheduled task was not registered: its definition cannot be written.");
  }
  if (!SaveRegisteredTask(old)) {
    DeleteFileW(own.c_str());
    return Refuse(install,
                  L"The scheduled task was not registered: the present one cannot be saved.");
  }
  const std::optional<DWORD> code = CreateTask(own);
  DeleteFileW(own.c_str());
  if (code != ERROR_SUCCESS) {
    return Refuse(install, L"The scheduled task was not registered: schtasks failed" +
                               (code ? L" with " + std::to_wstring(*code) : std::wstring()) + L".");
  }
  return ERROR_SUCCESS;
}

// Rollback of RegisterTask, even if it was interrupted: restores the task that it has replaced, or
// deletes the new one.
extern "C" UINT __stdcall RestoreTask(MSIHANDLE install) {
  const std::wstring old = Property(install, L"CustomActionData");
  WIN32_FILE_ATTRIBUTE_DATA file = {};
  if (GetFileAttributesExW(old.c_str(), GetFileExInfoStandard, &file) == 0) {
    return ERROR_SUCCESS;  // nothing was changed
  }
  if (file.nFileSizeLow == 0) {
    (void)DeleteTask();
  } else if (CreateTask(old) != ERROR_SUCCESS) {
    return Refuse(install, L"The scheduled task could not be restored. Its definition is " + old);
  }
  DeleteFileW(old.c_str());
  return ERROR_SUCCESS;
}

// Deferred, after everything that can fail: deletes the definition that RegisterTask has replaced.
// Not a commit action, which would not run when a policy disables rollback.
extern "C" UINT __stdcall ForgetOldTask(MSIHANDLE install) {
  DeleteFileW(Property(install, L"CustomActionData").c_str());
  return ERROR_SUCCESS;
}

// Deferred, after everything that can fail, so that it needs no rollback. There may be no task, so
// failures are ignored.
extern "C" UINT __stdcall RemoveTask(MSIHANDLE) {
  (void)DeleteTask();
  return ERROR_SUCCESS;
}
