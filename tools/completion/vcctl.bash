# Completion of vcctl for bash.
_vcctl() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command=${COMP_WORDS[1]} options=
    local streams="Basic Generic GenericUnReliable LogCollection Media StringCipher upgrade"
    if [ "$COMP_CWORD" = 1 ]; then
        mapfile -t COMPREPLY < <(compgen -W "host send recv watch ask check streams decode demo --help --version" -- "$word")
        return
    fi
    case $command in
        host) options="--kind --listen --connect --stdio --exec --library --capture --take-over --allow-remote --quiet" ;;
        send) options="--size --message-size --count --lines --raw --resume --wait" ;;
        recv) options="--size --count --lines --raw --resume --wait" ;;
        watch) options="--json --all --count" ;;
        ask) options="--wait --json" ;;
        check) options="--library --wait" ;;
        streams) options="--follow --interval" ;;
        decode) options="--packets --bytes" ;;
        demo) options="--kind --seconds --library" ;;
    esac
    if [[ $word == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$options --help" -- "$word")
        return
    fi
    case $before in
        --kind) mapfile -t COMPREPLY < <(compgen -W "citrix vmware rdp tcp" -- "$word") ;;
        send | recv | RequestNotifyStream) mapfile -t COMPREPLY < <(compgen -W "$streams" -- "$word") ;;
        ask)
            mapfile -t COMPREPLY < <(compgen -W "CreateStream OpenStream SetHVDClientInfo RequestVCProcessId FlushLog
                RequestNotifyStream RequestInvalidStreams RequestPeerVersion SetLogPath RequestEnviromentType
                IsSeamless GetWindowHandle IsMultiSession" -- "$word")
            ;;
        --listen | --connect | --size | --message-size | --count | --wait | --interval | --bytes | --seconds) ;;
        *) mapfile -t COMPREPLY < <(compgen -f -- "$word") ;;
    esac
}
complete -F _vcctl vcctl
