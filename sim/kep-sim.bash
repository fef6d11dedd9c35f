# bash completion for kep-sim(1)
#
# Completes the command word (run, serve, check, capture, record), the options
# that go with it, a file after --scenario and --output, and for run and
# record the COMMAND after the options: its name, then what bash would offer
# for it. Addresses are left to the user.

_kep_sim()
{
    local IFS=$' \t\n'
    local cur=${COMP_WORDS[COMP_CWORD]}
    local previous=""
    local word=""
    local command_at=0
    local index
    local candidates

    COMPREPLY=()
    if [ "$COMP_CWORD" -ge 1 ]; then
        previous=${COMP_WORDS[COMP_CWORD - 1]}
    fi

    # The command word, and where the COMMAND of run or record begins.
    for ((index = 1; index < COMP_CWORD; index++)); do
        case ${COMP_WORDS[index]} in
        --scenario | --address | --output)
            index=$((index + 1))
            ;;
        --)
            if [ -n "$word" ]; then
                command_at=$((index + 1))
                break
            fi
            ;;
        -*) ;;
        *)
            if [ -z "$word" ]; then
                word=${COMP_WORDS[index]}
            elif [ "$word" = run ] || [ "$word" = record ]; then
                command_at=$index
                break
            fi
            ;;
        esac
    done

    if [ "$command_at" -gt 0 ] && [ "$COMP_CWORD" -eq "$command_at" ]; then
        mapfile -t COMPREPLY < <(compgen -c -- "$cur")
        return 0
    fi
    if [ "$command_at" -gt 0 ]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return 0
    fi

    case $previous in
    --scenario | --output)
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return 0
        ;;
    --address)
        return 0
        ;;
    esac

    case $word in
    "") candidates="run serve check capture record --scenario --trace --system --address --help --version" ;;
    run) candidates="--scenario --trace --" ;;
    serve) candidates="--scenario --trace --system --address" ;;
    check) candidates="--scenario" ;;
    capture) candidates="--system --address --keep-secrets --output" ;;
    record) candidates="--system --address --keep-secrets --output --" ;;
    *) candidates="" ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$cur")
    return 0
}

complete -F _kep_sim kep-sim
