#include "tools/kelm/salvaging.h"

#include <cstdio>

#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "host/system/size_text.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/error_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "tools/kelm/output.h"

namespace kelm::tool {

namespace {

std::unique_ptr<host::SalvagedDisk> openSalvagedWith(Invocation& invocation, yx::CURI const& uri,
                                                     SalvageFlags const& flags,
                                                     yx::String const& password) {
    deriveKeys(invocation, uri, password);
    return invocation.getWait().retry([&] {
        return std::make_unique<host::SalvagedDisk>(
            invocation.getFiles(), uri, password,
            host::SalvageOptions{flags.fromParent, invocation.getTrust(), &invocation.getCancel()});
    });
}

} // namespace

void SalvageFlags::addTo(CLI::App& command) {
    addFlag(command, "--salvage", isOn,
            "Go on past what is damaged, list its bytes, and end with status 7");
    addFlag(command, "--from-parent", fromParent,
            "With --salvage: take what is damaged from the parent, which has older content, "
            "instead of zeros");
}

bool SalvageFlags::takeEffect() const {
    if (fromParent && !isOn)
        throw UsageError("--from-parent needs --salvage.");
    return isOn;
}

std::unique_ptr<host::SalvagedDisk> openToSalvage(Invocation& invocation, std::string const& file,
                                                  SalvageFlags const& flags,
                                                  PasswordOptions& passwords) {
    yx::CURI const uri = host::uriFromArgument(file);
    warnOfEndedWork(invocation, uri);
    try {
        return openSalvagedWith(invocation, uri, flags, usedPassword(invocation, passwords));
    } catch (yx::CError const& error) {
        if (!isPasswordMissing(error))
            throw;
    }
    return openSalvagedWith(invocation, uri, flags,
                            askForPassword(invocation, file, passwords).get());
}

ExitStatus reportDamage(Invocation& invocation, host::DamageList const& damage, bool toError) {
    invocation.getResult().add(
        {{"damage", reportDamagedStretches(damage)}, {"damagedBytes", damage.getDamagedBytes()}});
    if (damage.isEmpty())
        return ExitStatus::Done;
    std::string text;
    for (host::DamagedStretch const& stretch : damage.getStretches()) {
        text += "damaged: bytes " + host::formatRange(stretch.startBytes, stretch.endBytes) + ": " +
                host::printable(host::displayName(stretch.file) + ' ' + stretch.reason) + '\n';
    }
    text += std::to_string(damage.getDamagedBytes()) + " bytes damaged\n";
    bool const isError = invocation.getResult().getWords() == Words::Errors;
    if (toError || isError)
        std::fputs(text.c_str(), stderr);
    else
        invocation.getResult().print(text);
    return ExitStatus::Damaged;
}

} // namespace kelm::tool
