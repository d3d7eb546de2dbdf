// Result codes of the host runtime's certificate helper (CCertHelper::VerifyServerCertificate): unsigned
// 32-bit values carried in a long, 0 for a certificate that passes every check.
//
// The codes fall into two sets. A soft failure means the chain leads to a CA the machine trusts and nothing is
// forged, but something a careful operator may choose to live with is off: a validity period, the host name,
// the key usage, a policy, missing or stale revocation data, weak but valid cryptography. A caller may accept
// these, for example when the certificate is byte-for-byte the one it trusted before. A hard failure means the
// certificate cannot be tied to a trusted CA or is not what it claims (unknown CA, bad signature, revoked,
// broken chain); no caller should accept it.
//
//   code        set   meaning                                       OpenSSL verify results (X509_V_ERR_...)
//   0xFE210001  hard  invalid argument: no store context, no name
//   0xFE210002  hard  internal error (allocation, encoding)
//   0xFE210003  hard  the store context holds no server certificate
//   0xFE210004  hard  the trust store (CA file or system paths) could not be loaded
//   0xFE210010  soft  server certificate expired                    CERT_HAS_EXPIRED at depth 0
//   0xFE210011  hard  untrusted root: no chain to a trusted CA      UNABLE_TO_GET_ISSUER_CERT(_LOCALLY),
//                     (unknown CA, self-signed certificate)         DEPTH_ZERO_SELF_SIGNED_CERT,
//                                                                   SELF_SIGNED_CERT_IN_CHAIN, CERT_UNTRUSTED,
//                                                                   CERT_REJECTED, UNABLE_TO_VERIFY_LEAF_SIGNATURE
//   0xFE210012  soft  server certificate not yet valid              CERT_NOT_YET_VALID at depth 0
//   0xFE210013  soft  host name mismatch                            (X509_check_host / X509_check_ip_asc)
//   0xFE210014  soft  an issuing CA certificate expired             CERT_HAS_EXPIRED at depth > 0
//   0xFE210015  soft  an issuing CA certificate not yet valid       CERT_NOT_YET_VALID at depth > 0
//   0xFE210016  soft  revocation list out of date                   CRL_HAS_EXPIRED, CRL_NOT_YET_VALID
//   0xFE210017  soft  revocation status unknown (no CRL)            UNABLE_TO_GET_CRL
//   0xFE210018  hard  a signature in the chain does not verify      CERT_SIGNATURE_FAILURE,
//                                                                   UNABLE_TO_DECRYPT_CERT_SIGNATURE,
//                                                                   UNABLE_TO_DECODE_ISSUER_PUBLIC_KEY
//   0xFE210019  hard  certificate revoked                           CERT_REVOKED
//   0xFE21001A  hard  malformed chain                               INVALID_CA, INVALID_NON_CA,
//                                                                   PATH_LENGTH_EXCEEDED, CERT_CHAIN_TOO_LONG,
//                                                                   KEYUSAGE_NO_CERTSIGN, INVALID_EXTENSION
//   0xFE21001B  hard  name constraints violated                     PERMITTED_VIOLATION, EXCLUDED_VIOLATION,
//                                                                   SUBTREE_MINMAX, UNSUPPORTED_CONSTRAINT_*,
//                                                                   UNSUPPORTED_NAME_SYNTAX
//   0xFE21001F  hard  any other verification failure                (every result not named here)
//   0xFE210027  soft  certificate not meant for TLS servers         INVALID_PURPOSE
//   0xFE210028  hard  unknown critical extension                    UNHANDLED_CRITICAL_EXTENSION
//   0xFE210029  soft  certificate policy not satisfied              NO_EXPLICIT_POLICY, INVALID_POLICY_EXTENSION
//   0xFE21003A  soft  issuer of the revocation list unknown         UNABLE_TO_GET_CRL_ISSUER
//   0xFE21003B  soft  revocation list signature does not verify     UNABLE_TO_DECRYPT_CRL_SIGNATURE,
//                                                                   CRL_SIGNATURE_FAILURE
//   0xFE21003C  soft  revocation list malformed                     ERROR_IN_CRL_LAST_UPDATE_FIELD,
//                                                                   ERROR_IN_CRL_NEXT_UPDATE_FIELD,
//                                                                   UNHANDLED_CRITICAL_CRL_EXTENSION
//   0xFE21003D  soft  revocation list does not cover the chain      DIFFERENT_CRL_SCOPE, CRL_PATH_VALIDATION_ERROR,
//                                                                   KEYUSAGE_NO_CRL_SIGN
//   0xFE21003E  soft  OCSP status unverified                        OCSP_VERIFY_NEEDED, OCSP_VERIFY_FAILED,
//                                                                   OCSP_CERT_UNKNOWN
//   0xFE21003F  soft  validity period unreadable                    ERROR_IN_CERT_NOT_BEFORE_FIELD,
//                                                                   ERROR_IN_CERT_NOT_AFTER_FIELD
//   0xFE210040  soft  key or digest weaker than policy              EE_KEY_TOO_SMALL, CA_KEY_TOO_SMALL,
//                                                                   CA_MD_TOO_WEAK
//
// When a chain has several faults the first hard one is reported; only when there is none, the first soft
// one (the host name is checked after the chain, so it comes last).
#pragma once

constexpr long CERT_E_INVALID_ARGUMENT = 0xFE210001;
constexpr long CERT_E_INTERNAL = 0xFE210002;
constexpr long CERT_E_NO_CERTIFICATE = 0xFE210003;
constexpr long CERT_E_TRUST_STORE = 0xFE210004;
constexpr long CERT_E_EXPIRED = 0xFE210010;
constexpr long CERT_E_UNTRUSTED_ROOT = 0xFE210011;
constexpr long CERT_E_NOT_YET_VALID = 0xFE210012;
constexpr long CERT_E_HOST_MISMATCH = 0xFE210013;
constexpr long CERT_E_ISSUER_EXPIRED = 0xFE210014;
constexpr long CERT_E_ISSUER_NOT_YET_VALID = 0xFE210015;
constexpr long CERT_E_CRL_OUT_OF_DATE = 0xFE210016;
constexpr long CERT_E_REVOCATION_UNKNOWN = 0xFE210017;
constexpr long CERT_E_SIGNATURE = 0xFE210018;
constexpr long CERT_E_REVOKED = 0xFE210019;
constexpr long CERT_E_CHAIN = 0xFE21001A;
constexpr long CERT_E_NAME_CONSTRAINTS = 0xFE21001B;
constexpr long CERT_E_VERIFY_FAILED = 0xFE21001F;
constexpr long CERT_E_WRONG_USAGE = 0xFE210027;
constexpr long CERT_E_CRITICAL_EXTENSION = 0xFE210028;
constexpr long CERT_E_POLICY = 0xFE210029;
constexpr long CERT_E_CRL_ISSUER_UNKNOWN = 0xFE21003A;
constexpr long CERT_E_CRL_SIGNATURE = 0xFE21003B;
constexpr long CERT_E_CRL_MALFORMED = 0xFE21003C;
constexpr long CERT_E_CRL_SCOPE = 0xFE21003D;
constexpr long CERT_E_OCSP_UNVERIFIED = 0xFE21003E;
constexpr long CERT_E_VALIDITY_UNREADABLE = 0xFE21003F;
constexpr long CERT_E_WEAK_CRYPTO = 0xFE210040;

// Whether `code` is in the soft set above.
constexpr bool CertErrorIsSoft(long code) {
  return code == CERT_E_EXPIRED || (code >= CERT_E_NOT_YET_VALID && code <= CERT_E_REVOCATION_UNKNOWN) ||
         code == CERT_E_WRONG_USAGE || code == CERT_E_POLICY ||
         (code >= CERT_E_CRL_ISSUER_UNKNOWN && code <= CERT_E_WEAK_CRYPTO);
}
