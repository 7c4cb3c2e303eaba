#pragma once

#include "krym/cipher.h"
#include "krym/cipher_aes256cbc.h"
#include "krym/derive_key.h"
#include "krym/digest.h"
#include "krym/digest_type.h"
#include "krym/digest_type_sha256.h"
#include "krym/hasher_sha256.h"
#include "krym/openssl_cipher.h"
#include "krym/openssl_digest.h"
