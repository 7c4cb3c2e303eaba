// The values that descriptors are known to have, by name and type.

#include "kelm/format/constants.h"
#include "kelm/format/descriptor.h"
#include "kelm/format/internal/descriptor_text.h"
#include "yx/number.h"

namespace kelm {

namespace {

constexpr char kVersionKey[] = "version";
constexpr char kContentIDKey[] = "CID";
constexpr char kParentContentIDKey[] = "parentCID";
constexpr char kParentFileNameHintKey[] = "parentFileNameHint";
constexpr char kCreateTypeKey[] = "createType";
constexpr char kOnDemandKey[] = "yxCreateExtentFilesOnDemand";
constexpr char kAdapterTypeKey[] = "ddb.adapterType";
constexpr char kGeometrySectorsKey[] = "ddb.geometry.sectors";
constexpr char kGeometryHeadsKey[] = "ddb.geometry.heads";
constexpr char kGeometryCylindersKey[] = "ddb.geometry.cylinders";
constexpr char kEncryptionAlgorithmKey[] = "yxEncAlg";
constexpr char kKeyHashAlgorithmKey[] = "yxEncKeyHashAlg";
constexpr char kKeyDerivationAlgorithmKey[] = "yxEncKeyDerivAlg";
constexpr char kEncryptionIVKey[] = "yxEncIV";
constexpr char kEncryptedEncryptionKeyKey[] = "yxEncEncKey";
constexpr char kEncryptionKeyHashKey[] = "yxEncKeyHash";
constexpr char kKeyDerivationSaltKey[] = "yxEncKeyDerivSalt";

} // namespace

int CVMDKDescriptor::getVersion() const {
    return static_cast<int>(yx::parseInt64(getValue(kVersionKey), false));
}

void CVMDKDescriptor::setVersion(int version) {
    setValue(kVersionKey, yx::toString(version), false, true);
}

void CVMDKDescriptor::setEncodingUTF8() {
    setValue(detail::kEncodingKey, "UTF-8", true, true);
}

unsigned int CVMDKDescriptor::getContentID() const {
    return static_cast<unsigned int>(yx::parseHexInt64(getValue(kContentIDKey), false));
}

void CVMDKDescriptor::setContentID(unsigned int contentID) {
    setValue(kContentIDKey, yx::toHexString(contentID), false, true);
}

unsigned int CVMDKDescriptor::getParentContentID() const {
    yx::String text;
    if (!tryGetValue(kParentContentIDKey, text))
        return kNoParentContentID;
    // Deliberate: unlike the content ID, this one may be a number of 64 unsigned bits.
    return static_cast<unsigned int>(yx::parseHexInt64(text, true));
}

void CVMDKDescriptor::setParentContentID(unsigned int contentID) {
    setValue(kParentContentIDKey, yx::toHexString(contentID), false, true);
}

yx::String CVMDKDescriptor::getParentFileNameHint() const {
    return getValue(kParentFileNameHintKey);
}

bool CVMDKDescriptor::tryGetParentFileNameHint(yx::String& hint) const {
    return tryGetValue(kParentFileNameHintKey, hint);
}

void CVMDKDescriptor::setParentFileNameHint(yx::String const& hint) {
    setValue(kParentFileNameHintKey, hint, true, true);
}

void CVMDKDescriptor::removeParentFileNameHint() {
    removeValue(kParentFileNameHintKey);
}

yx::String CVMDKDescriptor::getCreateType() const {
    return getValue(kCreateTypeKey);
}

void CVMDKDescriptor::setCreateType(yx::String const& type) {
    setValue(kCreateTypeKey, type, true, true);
}

bool CVMDKDescriptor::getYxCreateExtentFilesOnDemand() const {
    yx::String text;
    return tryGetValue(kOnDemandKey, text) && yx::parseBool(text);
}

void CVMDKDescriptor::setYxCreateExtentFilesOnDemand(bool onDemand) {
    setValue(kOnDemandKey, yx::toString(onDemand), true, true);
}

yx::String CVMDKDescriptor::getAdapterType() const {
    return getValue(kAdapterTypeKey);
}

void CVMDKDescriptor::setAdapterType(yx::String const& type) {
    setValue(kAdapterTypeKey, type, true, false);
}

__int64 CVMDKDescriptor::getGeometrySectors() const {
    return yx::parseInt64(getValue(kGeometrySectorsKey), false);
}

void CVMDKDescriptor::setGeometrySectors(__int64 sectors) {
    setValue(kGeometrySectorsKey, yx::toString(sectors), true, false);
}

__int64 CVMDKDescriptor::getGeometryHeads() const {
    return yx::parseInt64(getValue(kGeometryHeadsKey), false);
}

void CVMDKDescriptor::setGeometryHeads(__int64 heads) {
    setValue(kGeometryHeadsKey, yx::toString(heads), true, false);
}

__int64 CVMDKDescriptor::getGeometryCylinders() const {
    return yx::parseInt64(getValue(kGeometryCylindersKey), false);
}

void CVMDKDescriptor::setGeometryCylinders(__int64 cylinders) {
    setValue(kGeometryCylindersKey, yx::toString(cylinders), true, false);
}

yx::String CVMDKDescriptor::getYxEncryptionAlgorithm() const {
    yx::String algorithm;
    tryGetValue(kEncryptionAlgorithmKey, algorithm);
    return algorithm;
}

void CVMDKDescriptor::setYxEncryptionAlgorithm(yx::String const& algorithm) {
    setValue(kEncryptionAlgorithmKey, algorithm, false, true);
}

yx::String CVMDKDescriptor::getYxEncryptionKeyHashAlgorithm() const {
    return getValue(kKeyHashAlgorithmKey);
}

void CVMDKDescriptor::setYxEncryptionKeyHashAlgorithm(yx::String const& algorithm) {
    setValue(kKeyHashAlgorithmKey, algorithm, false, true);
}

yx::String CVMDKDescriptor::getYxEncryptionKeyDerivationAlgorithm() const {
    return getValue(kKeyDerivationAlgorithmKey);
}

void CVMDKDescriptor::setYxEncryptionKeyDerivationAlgorithm(yx::String const& algorithm) {
    setValue(kKeyDerivationAlgorithmKey, algorithm, false, true);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getBytes(yx::String const& key) const {
    yx::TBuffer<unsigned char> bytes;
    yx::hexDecode(getValue(key), bytes);
    return bytes;
}

void CVMDKDescriptor::setBytes(yx::String const& key, yx::TBuffer<unsigned char> const& bytes) {
    setValue(key, yx::hexEncode(bytes), false, true);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getYxEncryptionIV() const {
    return getBytes(kEncryptionIVKey);
}

void CVMDKDescriptor::setYxEncryptionIV(yx::TBuffer<unsigned char> const& iv) {
    setBytes(kEncryptionIVKey, iv);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getYxEncryptedEncryptionKey() const {
    return getBytes(kEncryptedEncryptionKeyKey);
}

void CVMDKDescriptor::setYxEncryptedEncryptionKey(yx::TBuffer<unsigned char> const& key) {
    setBytes(kEncryptedEncryptionKeyKey, key);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getYxEncryptionKeyHash() const {
    return getBytes(kEncryptionKeyHashKey);
}

void CVMDKDescriptor::setYxEncryptionKeyHash(yx::TBuffer<unsigned char> const& hash) {
    setBytes(kEncryptionKeyHashKey, hash);
}

yx::TBuffer<unsigned char> CVMDKDescriptor::getYxEncryptionKeyDerivationSalt() const {
    return getBytes(kKeyDerivationSaltKey);
}

void CVMDKDescriptor::setYxEncryptionKeyDerivationSalt(yx::TBuffer<unsigned char> const& salt) {
    setBytes(kKeyDerivationSaltKey, salt);
}

} // namespace kelm
