// Sources of client certificates: the "MY" stores and PKCS #12.
#include "platform/certificate_store.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "platform/error.h"
#include "tests/unit/support/test_certificate.h"

namespace {

using platform::CertificateContext;
using platform::CertificateScope;
using platform::CertificateStore;
using Bytes = std::vector<std::uint8_t>;

// A certificate without a subject, with its key and without a password. An RSA key, because every
// platform imports one.
constexpr char kPfx[] =
    "MIIFNwIBAzCCBO0GCSqGSIb3DQEHAaCCBN4EggTaMIIE1jCCBNIGCSqGSIb3DQEHAaCCBMMEggS/MIIEuzCCAeQG"
    "CyqGSIb3DQEMCgEDoIIBjzCCAYsGCiqGSIb3DQEJFgGgggF7BIIBdzCCAXMwgd2gAwIBAgIBATANBgkqhkiG9w0B"
    "AQsFADAAMB4XDTI0MDEwMTAwMDAwMFoXDTQ0MDEwMTAwMDAwMFowADCBnzANBgkqhkiG9w0BAQEFAAOBjQAwgYkC"
    "gYEAt4MhpH5C85YKscJKdRjwdBonOvmsEzrL3vws58Hbe25drEF7P+MV0x904+xbgKwu7Z7laxQPhOoFXzhaLKI/"
    "rPHiFeMxhfQ/EMfL+tkFLADiufI4fM2f0gyxMoO7f6twwtLYOTV3LtXPC6FGfnP1cR5CHnAshFZbZpSwTPcWRs8C"
    "AwEAATANBgkqhkiG9w0BAQsFAAOBgQCP2wkSHOv0dDcFW3w/9hpH+UNOOxvCJuAlUn1z9Np5uEH/ttOQB8rCtS8F"
    "X7LxApcHZ6PNW01icNbk/HdLBtoKFdOOOhd4pdKZ2r8qzidcO0ny+N1vw8jzPEAfD7zGibpkpMjxjWh0HTdnYLW3"
    "l317UudhOvC7Cus52RiE9cs4WDFCMBsGCSqGSIb3DQEJFDEOHgwAbgBvAGIAbwBkAHkwIwYJKoZIhvcNAQkVMRYE"
    "FJEbRuGA8HjUlqXSdjAgHCc2Qa7mMIICzwYLKoZIhvcNAQwKAQGgggJ6MIICdgIBADANBgkqhkiG9w0BAQEFAASC"
    "AmAwggJcAgEAAoGBALeDIaR+QvOWCrHCSnUY8HQaJzr5rBM6y978LOfB23tuXaxBez/jFdMfdOPsW4CsLu2e5WsU"
    "D4TqBV84WiyiP6zx4hXjMYX0PxDHy/rZBSwA4rnyOHzNn9IMsTKDu3+rcMLS2Dk1dy7VzwuhRn5z9XEeQh5wLIRW"
    "W2aUsEz3FkbPAgMBAAECgYEAr3TNAb1GvibC6tpc3kCOBjPLNnPotioNKpHpTVzoQMdxAHVLJfY0s7rrw9AEXK5D"
    "4CWALDTt8aLep//1F5+5SD8y1n1Sp9R+8F6H6QRJICcFLDA2qUW1GjIx0iJ/RWNr9qPQ9vW1Z5TWLNYh6FXbKkI7"
    "l32WO1p2wQkIn6TlvkECQQDZ09LXYId58ixwwCmcgphC/T+PygP+vXWzSrkyDPGzN/HUn6aL0nlsbysKX1Dpds16"
    "Cna480H1BDfPnJZ/U9OZAkEA16vb3G+OrzioJVUINepZGwI1+HURbRVAKW+bmoeL2bjQ7beOd9jqpS3+gr3vwJKs"
    "m4xqNyBys4AW1FV0W4fupwJASaFxjr4hbVYwMXizWCVI5LQILUmjKhPO2mkyyrlXZjZN94pz2KWvx7iYOuxXRGOV"
    "N2CcGw6XSARB/Vq4AJhMWQJAbyQseCuxHxEWba6lPYuYAbgg8fn6UfmKiA/w4zCI3FlGqcpXC+HoAdly+BNDczzi"
    "4IH61o/NLD2NBj1HakfhrwJAPe3k5tKCke99LKZPzWeyRAmRbJMsq4rOsAUYrb/zth2SwQOdWjwYAMKuSyEiF3Eq"
    "ZcvZDsnC50p+wTaYLyadFDFCMBsGCSqGSIb3DQEJFDEOHgwAbgBvAGIAbwBkAHkwIwYJKoZIhvcNAQkVMRYEFJEb"
    "RuGA8HjUlqXSdjAgHCc2Qa7mMEEwMTANBglghkgBZQMEAgEFAAQgAMkjATtpP+0kG0oZzXpD+I+vA8JSEmQyn8uD"
    "gmoAr5sECFyVGgQFcolWAgIIAA==";

// The same with a password.
constexpr char kLockedPfx[] =
    "MIIFpgIBAzCCBWwGCSqGSIb3DQEHAaCCBV0EggVZMIIFVTCCAjcGCSqGSIb3DQEHBqCCAigwggIkAgEAMIICHQYJ"
    "KoZIhvcNAQcBMBwGCiqGSIb3DQEMAQMwDgQIEeVQYQL0oU8CAgfQgIIB8AvJ3xvb9CeVoR9pqGbpuXnf0Z1HBE6i"
    "K0B9K1ImZeJABgCxzTdQJj4CWqs6IVvx6PwOCxP1e+lWYiWbiylmOn0E99wwCISPijF/DGlbNKqBHWqp96DM4wA4"
    "dk5iwZnzRVVlsPHqLUGTbLTEwxPkI7TKEqvk61Au4zYk8Lh5LpXAWCYxFVCsmKlz7qYwdAMkwsjS0PU3er3/5FP4"
    "GusSyUCTjlAaxoy8a5RRw3eW+BaAep6dAirQV2cVyx6Jb3JAvuAwMGFdk4O+71IIrkagWt+s1r/Fr6xikJkdJ1/4"
    "ej1Ou/qKJsrhU0msk0G4RttltSW/OB4eKR7Ywrdconz8zfX1lM5pdAe/M5YwDlJAHydxeeC1NwL1/LDVMt6M8A0t"
    "lEcCI+4N2IWmChPP5nieJO2sbyDGsjzovf1agOJFY0xDrNZk+Fp/nufh4xWWkRd3Rv8pr9ERI239Tv9B/s/4lhRz"
    "N+7w134/RWhJLtZ7BrfsHz1tnrYWRkGP2yJFP0EJpA42bOxAqqig1m8IxTKaBDo+N6TYHkhr0jH0S5uOsGzK3i2u"
    "HeDRmhSiMrS6imnhoOBif68YzrWomBr/RXBjpkCH4UUvi2j5wLOqD8Rdw8sgBjZ7HlnKf4xpm61mVCeXP0/R8clZ"
    "svYXNMJRrOZIZnQwggMWBgkqhkiG9w0BBwGgggMHBIIDAzCCAv8wggL7BgsqhkiG9w0BDAoBAqCCAqYwggKiMBwG"
    "CiqGSIb3DQEMAQMwDgQIP+G7EnbqIbwCAgfQBIICgA02oJrZb4Y8TkMjuc1S0ZA1L03ud0qiE86sZ0mPIk3rhhhI"
    "VwdRZlHahHsaVVe+X++o8yiOOipuxCTYUYnG7zhSKot+jgIVwhDu7okUJpzl4shCwe7vi0fh2qXwI3AOXbKv2m8V"
    "MXmeJGI5dNFIMPy2SvDLrRpE9y4GenfrBdTu05SlX5Z5A8vvEwPOq+nG0Qq8u45MKVYZUlUfRVZy26ROYUQFO2ro"
    "JUmtABRyteC/UHD1WH68RP4uNiGmXks0rRTgNAQ+EpdPDUy4esOZtkUnIdBnVSN3GvX3GpsUljCLqoeT3hFU2igO"
    "+mde2TcXBMATwgKaHv1qCSQmqpjQXNFtsiXK6VIgli7AHmmtKovrTY41Ur1ViEU3wtrr0MbF8tD9gd15/tulxq3F"
    "bj8yVPTZOUIB1zla7d33RstQo5ptryfoxIKixsnmlHwCDF/hH5hG+m1+R2po/ntOmTTpUXkDG8A05vteTxsSwi9v"
    "9PJpuUIPiwCUYf77sifSEO3Ybl9sVJky0QlbeStavyfiV7sNB7pCjWBLgCbgIedY1vWrHX93dw95Sp6mt4ZJVjc4"
    "/zQGM5mrTzcnMX2lzBaUybn5QM99nTA56Th/ct7aT9MRD7jLCt0LU1aGS2Pli6CrWOl7qEkOYqmB5OQORk9QQkHN"
    "oQceRBiMJMtkfroDA9ZXMEaFKrcdkrD/+KnQGBa0ec8NXioY4Rs4JBHhHAIWLNHFi8yo4kAcIhPQ5I5h6+JBopA8"
    "q3zKyEdBGgArdVPNr74H481gURLrrg2pf9rzuYpT7/EKDWtGE5seYo2mzospbJ2yNgQEC/+lPBdo87LAOPQ6Be7k"
    "Y2ofwhrArCJvR8UxQjAbBgkqhkiG9w0BCRQxDh4MAG4AbwBiAG8AZAB5MCMGCSqGSIb3DQEJFTEWBBSRG0bhgPB4"
    "1Jal0nYwIBwnNkGu5jAxMCEwCQYFKw4DAhoFAAQUwORW90rZ87GxLd0pGugeZJAUTXYECBE8/yTDEwmEAgIIAA==";

Bytes Decode(std::string_view base64) {
  constexpr std::string_view kAlphabet =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  Bytes bytes;
  std::uint32_t bits = 0;
  unsigned count = 0;
  for (const char one : base64) {
    const std::size_t digit = kAlphabet.find(one);
    if (digit == std::string_view::npos) {
      break;  // the padding
    }
    bits = (bits << 6U) | static_cast<std::uint32_t>(digit);
    count += 6;
    if (count >= 8) {
      count -= 8;
      bytes.push_back(static_cast<std::uint8_t>(bits >> count));
    }
  }
  return bytes;
}

TEST(CertificateStore, FindsACertificateOfTheUserByItsThumbprint) {
  const kyd_test::TestCertificate certificate;
  const CertificateStore store = platform::OpenPersonalStore(CertificateScope::kCurrentUser);
  ASSERT_TRUE(store.IsValid());
  EXPECT_TRUE(platform::FindByThumbprint(store, certificate.Thumbprint()).IsValid());
}

TEST(CertificateStore, FindsNoOtherThumbprint) {
  const kyd_test::TestCertificate certificate;
  const CertificateStore store = platform::OpenPersonalStore(CertificateScope::kCurrentUser);
  ASSERT_TRUE(store.IsValid());
  Bytes other = certificate.Thumbprint();
  ASSERT_FALSE(other.empty());
  other.back() ^= 1U;
  Bytes shorter = certificate.Thumbprint();
  shorter.pop_back();
  for (const Bytes& thumbprint : {other, shorter, Bytes()}) {
    platform::SetLastError(0);
    EXPECT_FALSE(platform::FindByThumbprint(store, thumbprint).IsValid());
    EXPECT_EQ(platform::LastError(), platform::kErrorCertificateNotFound);
  }
}

TEST(CertificateStore, SeparatesUserAndMachine) {
  const kyd_test::TestCertificate certificate;
  const CertificateStore store = platform::OpenPersonalStore(CertificateScope::kLocalMachine);
  EXPECT_FALSE(store && platform::FindByThumbprint(store, certificate.Thumbprint()));
}

TEST(CertificateStore, CertificateOutlivesItsStore) {
  const kyd_test::TestCertificate certificate;
  CertificateStore store = platform::OpenPersonalStore(CertificateScope::kCurrentUser);
  ASSERT_TRUE(store.IsValid());
  const CertificateContext found = platform::FindByThumbprint(store, certificate.Thumbprint());
  store.Reset();
  EXPECT_TRUE(found.IsValid());
}

TEST(Pfx, IsDistinguishedFromOtherBytes) {
  EXPECT_TRUE(platform::IsPfx(Decode(kPfx)));
  EXPECT_TRUE(platform::IsPfx(Decode(kLockedPfx)));
  EXPECT_FALSE(platform::IsPfx({}));
  EXPECT_FALSE(platform::IsPfx({'n', 'o', ' ', 'P', 'F', 'X'}));
  Bytes cut = Decode(kPfx);
  cut.resize(cut.size() / 2);
  EXPECT_FALSE(platform::IsPfx(cut));
}

TEST(Pfx, ReturnsItsCertificate) {
  const CertificateStore store = platform::ImportPfx(Decode(kPfx));
  ASSERT_TRUE(store.IsValid());
  EXPECT_TRUE(platform::FindFirstCertificate(store).IsValid());
}

TEST(Pfx, IsNotImportedWithAPasswordOrIfDamaged) {
  EXPECT_FALSE(platform::ImportPfx(Decode(kLockedPfx)).IsValid());
  EXPECT_FALSE(platform::ImportPfx({}).IsValid());
  EXPECT_FALSE(platform::ImportPfx({'n', 'o', ' ', 'P', 'F', 'X'}).IsValid());
}

}  // namespace
