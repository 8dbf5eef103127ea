// Processes each log file: find, open, post, judge the response, move, count.
#include "upload/upload_one_user.h"

#include <cpprest/http_msg.h>

#include <boost/exception/diagnostic_information.hpp>
#include <cstdint>
#include <exception>

#include "credentials/credential_file.h"
#include "debuglog/cdebuglog.h"
#include "logtree/log_tree.h"
#include "platform/error.h"
#include "platform/file_search.h"
#include "platform/text.h"
#include "socket/certificate_selection.h"
#include "socket/http_client.h"
#include "socket/library_threads.h"
#include "upload/log_file_stream.h"

namespace kyd {

namespace {

using CorvidSocket::HeaderSet;
using web::http::http_response;
using web::http::status_codes;

constexpr wchar_t kServicePath[] = L"/idp/api/keyward/v1/log/sso";

// The data that is the same for all files of the account.
struct Account {
  UploadRun& run;
  const std::wstring& name;
  const CorvidSocket::Transport& transport;
  LogTree tree;
  std::wstring address;
  HeaderSet closing_headers;
  HeaderSet keep_alive_headers;
  CorvidSocket::ClientCertificate certificate;
  CorvidSocket::ConnectionCache connections;
  std::uint32_t failed_files = 0;
};

CorvidSocket::ClientCertificate SelectCertificate(const UploadRun& run,
                                                  const UploadAuthData& credentials) {
  CorvidSocket::ClientCertificate certificate;
  if (!credentials.cert_base64encoded.empty()) {
    CorvidSocket::ParseAuthParam(certificate, credentials, run);
  } else if (!credentials.cert_hash.empty() && !credentials.cert_store.empty()) {
    CorvidSocket::SelectStoreCert(certificate, credentials);
  }
  return certificate;
}

// A certificate belongs to one account, and so do the TLS sessions negotiated with it.
CorvidSocket::ConnectionCache ConnectionsOf(UploadRun& run,
                                            const CorvidSocket::ClientCertificate& certificate) {
  if (certificate.context.Get() != nullptr) {
    return CorvidSocket::MakeConnectionCache();
  }
  if (run.connections == nullptr) {
    run.connections = CorvidSocket::MakeConnectionCache();
  }
  return run.connections;
}

HeaderSet MakeHeaders(const UploadRun& run, const UploadAuthData& credentials,
                      const wchar_t* connection) {
  // The session ends at its first NUL. The key is not truncated: a NUL in it is refused.
  // NOLINTNEXTLINE(readability-redundant-string-cstr)
  const std::wstring session = credentials.idp_session.c_str();
  return {{L"Connection", connection},
          {L"Cookie", L"idp.session=" + session},
          {L"Authorization", L"Bearer " + credentials.apikey},
          {L"User-Agent", run.userAgent}};
}

Account PrepareAccount(UploadRun& run, const std::wstring& name, const UploadAuthData& credentials,
                       const CorvidSocket::Transport& transport) {
  Account account{run, name, transport, LogTree(run.logDir), {}, {}, {}, {}, {}};
  account.certificate = SelectCertificate(run, credentials);
  account.connections = ConnectionsOf(run, account.certificate);
  account.address = L"https://" + run.tenant + kServicePath;
  account.closing_headers = MakeHeaders(run, credentials, L"close");
  // One word, as the service expects it; not the token of RFC 9110.
  account.keep_alive_headers = MakeHeaders(run, credentials, L"KeepAlive");
  return account;
}

// Deliberately only these two: other 2xx codes do not mean that the service has stored the file.
bool IsAccepted(web::http::status_code status) {
  return status == status_codes::OK || status == status_codes::Accepted;
}

void CountRefused(Account& account, const http_response& answer,
                  const CorvidSocket::HttpRequestBase& request) {
  if (answer.status_code() == status_codes::Unauthorized) {
    DeleteAuthFile(account.run, account.name);
  }
  const std::wstring text = CorvidSocket::ReadAnswerText(answer, request);
  Log().WriteLogW(L"<UploadOneUser> Error [%d, %s]", answer.status_code(), text);
  ++account.run.fileErrorCount;
  ++account.failed_files;
}

// An existing file in the archive is never replaced; the file then stays and is sent again by a
// later run, although it counts as sent.
void MoveToArchive(const Account& account, const std::wstring& file) {
  Log().WriteLogW(L"<MOVE> UploadFile [%s]", account.tree.UploadPath(account.name, file));
  Log().WriteLogW(L"<MOVE> ArchiveFile [%s]", account.tree.ArchivePath(account.name, file));
  if (account.tree.Archive(account.name, file)) {
    Log().WriteLogA("<MOVE> Move OK");
    return;
  }
  const unsigned error = platform::LastError();
  Log().WriteLogA("<MOVE> Move NG [%d]", error);
}

void UploadFile(Account& account, const std::wstring& file, const HeaderSet& headers) {
  const std::wstring path = account.tree.UploadPath(account.name, file);
  Log().WriteLogW(L"<UploadOneUser> UploadFile [%s]", path);
  LogFileStream stream(path);
  CorvidSocket::HttpPostRequest request(headers);
  request.request.set_body(stream.Get(),
                           utility::string_t(platform::ToNative(L"application/octet-stream")));
  const void* const context = account.certificate.context.Get();
  CorvidSocket::HttpClient client(context, /*has_certificate=*/context != nullptr,
                                  account.transport, account.connections);
  const web::uri address(platform::ToNative(account.address));
  const http_response answer = client.SendRequest(address, request, L"", L"", /*retryCount=*/0);
  const CorvidSocket::AnswerGuard guard(answer);
  const bool accepted = IsAccepted(answer.status_code());
  if (accepted) {
    Log().WriteLogA("<UploadOneUser> Success [%d]", answer.status_code());
    ++account.run.fileOkCount;
  } else {
    CountRefused(account, answer, request);
  }
  stream.Close();
  if (accepted) {
    MoveToArchive(account, file);
  }
}

// Searches one entry ahead, because the request for the last file closes the connection.
void UploadFolder(Account& account, platform::FileSearch& search) {
  CorvidSocket::PrepareLibrary();
  bool more = true;
  while (more) {
    const std::wstring file = search.Current().name;
    more = search.Next();
    UploadFile(account, file, more ? account.keep_alive_headers : account.closing_headers);
  }
  ++account.run.sendCount;
}

}  // namespace

int UploadOneUser(UploadRun& run, const std::wstring& name, const UploadAuthData& credentials) {
  return UploadOneUser(run, name, credentials, CorvidSocket::LibraryTransport());
}

int UploadOneUser(UploadRun& run, const std::wstring& name, const UploadAuthData& credentials,
                  const CorvidSocket::Transport& transport) {
  Log().WriteLogW(L"<UploadOneUser> in  [%s]", name);
  platform::FileSearch search;  // closed last, after the handlers
  try {
    Account account = PrepareAccount(run, name, credentials, transport);
    search = account.tree.WaitingFiles(name);
    if (search.First()) {
      UploadFolder(account, search);
    } else {
      ++run.noSendCount;
    }
    Log().WriteLogW(L"<UploadOneUser> out  [%s]", name);
    if (account.failed_files != 0) {
      AddUploadErrInfo(run.report, name, account.failed_files);
    }
    return kSucceeded;
  } catch (const CorvidSocket::Exception& failure) {
    Log().WriteLogW(L"<UploadOneUser> exception socket[%s]", name);
    Log().WriteLogA("exception message [%s]", boost::diagnostic_information(failure));
    return kFailed;
  } catch (const std::exception&) {
    Log().WriteLogW(L"<UploadOneUser> exception [%s]", name);
  } catch (...) {
    Log().WriteLogW(L"<UploadOneUser> exception etc[%s]", name);
  }
  return kRunMustEnd;
}

}  // namespace kyd
