// What kep-sim takes out of the files it writes: which key names are secret, what a value becomes with its
// secrets replaced, and which calls a replay takes for a recorded one that holds placeholders.
#include "sim/format/secrets.h"

#include <cstdio>
#include <string>

namespace {

int passes = 0;
int failures = 0;

void expect(bool holds, const std::string &what)
{
    if (holds) {
        passes += 1;
        return;
    }
    failures += 1;
    std::printf("FAIL %s\n", what.c_str());
}

Variant parsed(const char *text)
{
    return own(g_variant_parse(nullptr, text, nullptr, nullptr, nullptr));
}

// Words are cut at case changes, digits, '_' and '-'; a word must be one of the secret words whole, or its
// plural, an abbreviation's included.
const char *const SecretNames[]
    = {"wpa_psk",    "wep_key", "Key",      "Passphrase",    "Psk",    "wep_key0", "WEPKey",
       "PassPhrase", "psk-hex", "Password", "client_secret", "PIN",    "Pin_Code", "keys",
       "PINs",       "PSKs",    "WEPKeys",  "Passphrases",   "PINsFor"};
const char *const PlainNames[] = {"KnownNetworks", "CablePluggedIn", "Ping", "Pinned", "Keyboard", "Passive",
                                  "Spin",          "Ssid",           "",     "SKEY",   "IDs"};

struct ValueRow {
    const char *property;
    const char *value;
    const char *removed; // the value as written, its secrets replaced
    size_t count;        // how many were
};

const ValueRow Values[] = {
    {"WirelessNetworks", "{'Home': <{'wpa_psk': <'s3cret'>}>}",
     "{'Home': <{'wpa_psk': <'[removed secret 1]'>}>}", 1},
    // every value in a network's map, whatever its type word; a network that is not a map, whole
    {"WirelessNetworks", "{'A': <{'anything': <'x'>, 'n': <5>}>, 'B': <'raw'>}",
     "{'A': <{'anything': <'[removed secret 1]'>, 'n': <2>}>, 'B': <'[removed secret 3]'>}", 3},
    {"WirelessNetworks", "{'Guest': <@a{sv} {}>}", "{'Guest': <@a{sv} {}>}", 0},
    {"WirelessNetworks", "'not a map'", "'[removed secret 1]'", 1},
    // at any depth, under a secret key; the same secret, the same placeholder
    {"Details", "{'SoftAp': <{'Passphrase': <'p'>, 'Ssid': <'s'>}>, 'Key': <'p'>}",
     "{'SoftAp': <{'Passphrase': <'[removed secret 1]'>, 'Ssid': <'s'>}>, 'Key': <'[removed secret 1]'>}", 2},
    {"Details", "{'Psk': <b'raw'>, 'Pin': <uint32 1234>, 'KeySet': <true>, 'KeyPath': <objectpath '/k'>}",
     "{'Psk': <b'[removed secret 1]'>, 'Pin': <uint32 2>, 'KeySet': <false>, 'KeyPath': <objectpath "
     "'/removed_secret_4'>}",
     4},
    {"Details", "{'Keys': <['a', 'b']>, 'KnownNetworks': <2>}",
     "{'Keys': <['[removed secret 1]', '[removed secret 2]']>, 'KnownNetworks': <2>}", 2},
    // a dictionary inside a secret keeps its keys
    {"Details", "{'Secret': <{'name': <'x'>}>}", "{'Secret': <{'name': <'[removed secret 1]'>}>}", 1},
    {"Mode", "'automatic'", "'automatic'", 0},
    {"Passphrase", "'p'", "'[removed secret 1]'", 1},
};

Step setCall(const char *value)
{
    Step step;
    step.isCall = true;
    step.member = "Set";
    step.interface = "org.freedesktop.DBus.Properties";
    step.args = parsed(value);
    return step;
}

struct MatchRow {
    const char *recorded;
    const char *live;
    bool same;
};

const MatchRow Matches[] = {
    {"('com.calyra.kep', 'WirelessNetworks', <{'H': <{'wpa_psk': <'[removed secret 1]'>}>}>)",
     "('com.calyra.kep', 'WirelessNetworks', <{'H': <{'wpa_psk': <'anything'>}>}>)", true},
    {"('com.calyra.kep', 'WirelessNetworks', <{'H': <{'wpa_psk': <'[removed secret 1]'>}>}>)",
     "('com.calyra.kep', 'WirelessNetworks', <{'W': <{'wpa_psk': <'anything'>}>}>)", false},
    {"('com.calyra.kep', 'WirelessNetworks', <{'H': <{'wpa_psk': <'[removed secret 1]'>}>}>)",
     "('com.calyra.kep', 'WirelessNetworks', <{'H': <{'wep': <'anything'>}>}>)", false},
    {"('com.calyra.kep', 'WirelessNetworks', <{'H': <{'wpa_psk': <'[removed secret 1]'>}>}>)",
     "('com.calyra.kep', 'WirelessNetworks', <{'H': <{'wpa_psk': <5>}>}>)", false},
    // kept secrets are matched as they stand
    {"('com.calyra.kep', 'WirelessNetworks', <{'H': <{'wpa_psk': <'s3cret'>}>}>)",
     "('com.calyra.kep', 'WirelessNetworks', <{'H': <{'wpa_psk': <'other'>}>}>)", false},
    // in a text where nothing is secret, a placeholder stands for the secret's text taken out: one
    // character or more
    {"('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'[removed secret 1]'>}>)",
     "('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'10.0.0.1'>}>)", true},
    {"('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'10.[removed secret 1].1'>}>)",
     "('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'10.0.0.1'>}>)", true},
    {"('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'10.[removed secret 1].1'>}>)",
     "('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'10..1'>}>)", false},
    {"('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'10.[removed secret 1].1'>}>)",
     "('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'10.0.0.2'>}>)", false},
    {"('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'10.0.0.1'>}>)",
     "('com.calyra.kep', 'WiredIpSettings', <{'Ip': <'10.0.0.1'>}>)", true},
};

// Details written before WirelessNetworks, whose secrets were learnt first: their texts are out of it,
// whatever their type, and a placeholder is never searched again.
struct TextRow {
    const char *networks;
    const char *details;
    const char *removed;
    size_t count;
};

const TextRow Texts[] = {
    // four characters are enough to be looked for
    {"{'Home': <{'wpa_psk': <'k3y4'>}>}", "{'Log': <'k3y4?'>}", "{'Log': <'[removed secret 1]?'>}", 1},
    {"{'A': <{'psk': <'secret'>}>, 'B': <{'psk': <'a secret too'>}>}", "{'Log': <'a secret too, secret'>}",
     "{'Log': <'[removed secret 2], [removed secret 1]'>}", 2},
    {"{'A': <{'key': <b'bytekey1'>, 'path': <objectpath '/net/k3y'>, 'pin': <uint32 12345670>}>}",
     "{'Log': <'bytekey1 /net/k3y 12345670 670'>}",
     "{'Log': <'[removed secret 1] [removed secret 2] [removed secret 3] 670'>}", 3},
};

} // namespace

int main()
{
    for (const char *name : SecretNames)
        expect(isSecretName(name), std::string("a secret's name: ") + name);
    for (const char *name : PlainNames)
        expect(!isSecretName(name), std::string("not a secret's name: ") + name);
    for (const ValueRow &row : Values) {
        SecretRemover remover;
        const Variant value = parsed(row.value);
        const Variant removed = remover.removedFrom(row.property, value.get());
        const std::string written = text(removed.get());
        expect(written == row.removed, std::string(row.value) + " became " + written);
        expect(remover.removed() == row.count, std::string(row.value) + ": count");
    }
    // A WpsPin's argument is secret; a short one too, but not inside other texts.
    SecretRemover remover;
    Step pin;
    pin.isCall = true;
    pin.member = "WpsPin";
    pin.args = parsed("('123',)");
    pin.error = "org.example.Refused";
    pin.message = "PIN 123 refused";
    const Step removedPin = remover.removedFrom(pin);
    expect(text(removedPin.args.get()) == "('[removed secret 1]',)", text(removedPin.args.get()));
    expect(removedPin.message == "PIN 123 refused", removedPin.message);
    for (const TextRow &row : Texts) {
        SecretRemover textRemover;
        const Variant networks = parsed(row.networks);
        textRemover.learnFrom("WirelessNetworks", networks.get());
        const Variant details = parsed(row.details);
        const std::string written = text(textRemover.removedFrom("Details", details.get()).get());
        expect(written == row.removed, std::string(row.details) + " became " + written);
        expect(textRemover.removed() == row.count, std::string(row.details) + ": count");
    }
    for (const MatchRow &row : Matches) {
        const Variant live = parsed(row.live);
        expect(sameCallArguments(setCall(row.recorded), live.get()) == row.same,
               std::string("match: ") + row.recorded + " and " + row.live);
    }
    std::printf("%d passed, %d failed\n", passes, failures);
    if (failures > 0)
        return 1;
    return 0;
}
