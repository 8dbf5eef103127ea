// The text of an error response, from its headers and body.
#include <algorithm>
#include <string>
#include <string_view>

#include "platform/text.h"
#include "socket/bounded_body.h"
#include "socket/http_client.h"
#include "tests/fuzz/input.h"
#include "tests/fuzz/targets.h"

namespace kyd_fuzz {

// Input: a byte that sets the size of the pieces, a line with the content type, then the body.
int FuzzAnswerText(const std::uint8_t* bytes, std::size_t size) {
  Input input(bytes, size);
  const std::size_t piece_size = std::size_t{input.Byte()} * 40 + 1;
  const std::string_view type = input.Line();
  const std::string_view body = input.Rest();

  CorvidSocket::HttpPostRequest request({});
  auto stream = request.answer_body.Stream().streambuf();
  for (std::size_t done = 0; done < body.size(); done += piece_size) {
    const std::size_t piece = std::min(piece_size, body.size() - done);
    Require(stream.putn_nocopy(BytesOf(body) + done, piece).get() == piece,
            "every piece is accepted completely");
  }
  const std::string_view kept = body.substr(0, CorvidSocket::kKeptBodyBytes);
  Require(request.answer_body.Kept() == kept, "the beginning is kept");

  web::http::http_response answer(500);
  answer.headers().add(web::http::header_names::content_type,
                       platform::ToNative(platform::FromUtf8(type)));
  answer._get_impl()->_complete(body.size());
  Require(CorvidSocket::ReadAnswerText(answer, request) == platform::FromUtf8(kept),
          "the body is read as text for any content type");
  return 0;
}

}  // namespace kyd_fuzz
