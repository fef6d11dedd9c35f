#ifndef KEP_SIM_SECRETS_H
#define KEP_SIM_SECRETS_H

// Keeping secrets on the device: Wi-Fi keys, passphrases, WPS credentials and PINs are taken out of what
// kep-sim writes for someone else, each replaced by a placeholder of the same D-Bus type.
//
// What is secret, wherever it stands and at any depth:
// - in any dictionary, the value under a key one of whose words is psk, key, pass, passphrase, password,
//   secret or pin, or their plural (words split at case changes, digits, '_' and '-': wpa_psk, wep_key0,
//   Key, Passphrase, Keys; not KnownNetworks, Ping);
// - every value inside a network's own map in WirelessNetworks (a key of that name in a dictionary, or the
//   property a Get or Set names);
// - the arguments of WpsPin.
// A secret's text (a string's, an object path's, a byte array's, or a long enough number's) met inside
// another text, an error message say, is replaced there too; a placeholder already put is never searched.
#include "sim/format/step.h"

#include <map>
#include <string>
#include <string_view>
#include <vector>

// What a value is, as far as secrets go.
enum class Holds {
    Plain,    // secret only where its keys say so
    Secret,   // every value in it
    Networks, // WirelessNetworks: a dictionary of networks
    Network,  // one network's own map: every value in it
};

// Whether a dictionary key's name says that its value is secret.
bool isSecretName(std::string_view name);

// Takes the secrets out of the values of one file. The same secret gets the same placeholder throughout.
class SecretRemover
{
public:
    // Learns the secrets a property's value holds, replacing nothing: a text written later, before that
    // value, has them replaced too.
    void learnFrom(const std::string &property, GVariant *value);

    // The step with its secrets replaced.
    Step removedFrom(const Step &step);

    // A property's value with its secrets replaced.
    Variant removedFrom(const std::string &property, GVariant *value);

    // A step written once already, its placeholders in place: the secrets learned since replaced in its
    // texts.
    Step textsRemovedFrom(const Step &step);

    // How many secrets have been replaced so far, inside other texts too.
    size_t removed() const { return m_removed; }

private:
    // Whether the values are new, or were written once already with their placeholders in place.
    enum class Values { New, Written };

    Step removedFrom(const Step &step, Values values);
    Variant removedFrom(GVariant *value, Holds holds, Values values);
    Variant placeholder(GVariant *secret);
    std::string withoutSecretTexts(const std::string &text);

    std::map<std::string, guint> m_numbers; // a secret's type and bytes, and the number of its placeholder
    std::vector<std::pair<std::string, std::string>> m_texts; // a secret's text, and its placeholder's
    size_t m_removed = 0;
};

// Whether a call's arguments are the recorded ones, but where the recording holds a placeholder.
bool sameCallArguments(const Step &recorded, GVariant *args);

#endif
