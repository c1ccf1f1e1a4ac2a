# bash completion for norvik(1)

_norvik() {
    local cur prev words cword
    _init_completion || return

    local commands="agent status connect disconnect toggle change-server mode sites watch logs update debug"
    local globals="--home --backend --ca-file --provisioning --tunnel -v --verbose --help --version"

    case $prev in
        --home)
            _filedir -d
            return
            ;;
        --ca-file | --provisioning)
            _filedir
            return
            ;;
        --tunnel)
            COMPREPLY=($(compgen -W "simulated wireguard" -- "$cur"))
            return
            ;;
        --backend | --feed | --mirror | --current-version | --msi-url | --msi-version | --param | -n | --lines | --simulated-connect-ms)
            return
            ;;
    esac

    # The first word that is not an option (or an option's value) is the command.
    local i command="" sub=""
    for ((i = 1; i < cword; i++)); do
        case ${words[i]} in
            --home | --backend | --ca-file | --provisioning | --tunnel) ((i++)) ;;
            -*) ;;
            *)
                if [[ -z $command ]]; then
                    command=${words[i]}
                elif [[ -z $sub ]]; then
                    sub=${words[i]}
                fi
                ;;
        esac
    done

    case $command in
        "")
            if [[ $cur == -* ]]; then
                COMPREPLY=($(compgen -W "$globals" -- "$cur"))
            else
                COMPREPLY=($(compgen -W "$commands" -- "$cur"))
            fi
            ;;
        agent) COMPREPLY=($(compgen -W "--simulated-connect-ms --help" -- "$cur")) ;;
        status) COMPREPLY=($(compgen -W "--json --help" -- "$cur")) ;;
        mode)
            [[ -z $sub ]] && COMPREPLY=($(compgen -W "full smart services --yes" -- "$cur"))
            [[ -n $sub ]] && COMPREPLY=($(compgen -W "--yes" -- "$cur"))
            ;;
        sites)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "list on off add remove enable disable" -- "$cur"))
            elif [[ $sub == on || $sub == off ]]; then
                COMPREPLY=($(compgen -W "youtube instagram whatsapp telegram tiktok discord chatgpt claude" -- "$cur"))
            fi
            ;;
        logs) COMPREPLY=($(compgen -W "--lines --follow" -- "$cur")) ;;
        update)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "check install" -- "$cur"))
            else
                COMPREPLY=($(compgen -W "--feed --mirror --current-version --beta --msi-url --msi-version" -- "$cur"))
            fi
            ;;
        debug)
            if [[ -z $sub ]]; then
                COMPREPLY=($(compgen -W "vendor-id api secure-store" -- "$cur"))
            elif [[ $sub == secure-store ]]; then
                COMPREPLY=($(compgen -W "lock unlock" -- "$cur"))
            elif [[ $sub == api ]]; then
                COMPREPLY=($(compgen -W "--param main getkey change_server check_app_version" -- "$cur"))
            fi
            ;;
    esac
} &&
    complete -F _norvik norvik
