# bash completion for kepclient(1)
#
# Completes the command word, the mode of "normal", the action of "softap"
# and the security type of every network given to "add"
# (kepclient add SSID TYPE KEY SSID TYPE KEY ...). Other words (SSIDs, keys,
# addresses, interface names, log levels) are left to the user.

_kepclient()
{
    local IFS=$' \t\n'
    local cur=${COMP_WORDS[COMP_CWORD]}
    local candidates=""

    COMPREPLY=()

    if [ "$COMP_CWORD" -eq 1 ]; then
        candidates="help status off normal softap scan wps add wiredip wirelessip loglevel"
    elif [ "$COMP_CWORD" -ge 2 ]; then
        case ${COMP_WORDS[1]} in
        normal)
            [ "$COMP_CWORD" -eq 2 ] && candidates="automatic wired wireless hybrid"
            ;;
        softap)
            [ "$COMP_CWORD" -eq 2 ] && candidates="start stop"
            ;;
        add)
            # Words after "add" come in triples; the type is the second one.
            [ $(( (COMP_CWORD - 2) % 3 )) -eq 1 ] && candidates="unsecured wep_key wpa_psk"
            ;;
        esac
    fi

    if [ -n "$candidates" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
    fi
    return 0
}

complete -F _kepclient kepclient
