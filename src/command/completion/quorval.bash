# Completion of quorval(1) for bash.                                    -*- shell-script -*-

_quorval()
{
    local cur prev words cword split
    _init_completion -s || return

    local command=${words[1]}
    if ((cword == 1)); then
        local commands='check config describe get graph inspect list new recording replay run schema
            set stop top'
        mapfile -t COMPREPLY < <(compgen -W "${commands} --help --version" -- "${cur}")
        return
    fi

    case ${prev} in
    --format)
        mapfile -t COMPREPLY < <(compgen -W 'dot json mermaid svg' -- "${cur}")
        return
        ;;
    --bus)
        local buses='user system'
        [[ ${command} != run ]] || buses+=' none'
        mapfile -t COMPREPLY < <(compgen -W "${buses}" -- "${cur}")
        return
        ;;
    --state | --plugin-path)
        _filedir -d
        return
        ;;
    --record | --trace)
        _filedir
        return
        ;;
    --set | --for | --machine | --outputs)
        return
        ;;
    esac
    ${split} && return

    if [[ ${cur} == -* ]]; then
        local options='--help --set --plugin-path'
        case ${command} in
        config) options='--help --raw' ;;
        new | recording) options='--help' ;;
        check) options+=' --machine --strict --json' ;;
        graph) options+=' --format' ;;
        inspect) options+=' --json' ;;
        replay) options+=' --state --machine --local --fast --threads --quiet --verbose' ;;
        run) options+=' --state --bus --for --machine --local --record --outputs --stats --threads --trace --quiet --verbose' ;;
        describe | get | list | stop) options='--help --bus' ;;
        set) options='--help --bus --save' ;;
        top) options='--help --bus --once' ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "${options}" -- "${cur}")
    elif [[ ${command} == config ]]; then
        if ((cword == 2)); then
            mapfile -t COMPREPLY < <(compgen -W 'diff export get import set show unset' -- "${cur}")
        else
            _filedir
        fi
    elif [[ ${command} == recording ]] && ((cword == 2)); then
        mapfile -t COMPREPLY < <(compgen -W 'show' -- "${cur}")
    elif [[ ${command} == recording || ${command} == replay ]]; then
        _filedir
    elif [[ ${command} == @(check|graph|run) ]]; then
        _filedir toml
    fi
} && complete -F _quorval quorval
