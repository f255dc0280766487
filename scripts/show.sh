# How ./run and the tour show things: with colour on a terminal, plainly elsewhere. To be sourced.

if { [ -t 1 ] || [ -n "${BTN_COLOUR:-}" ]; } && [ -z "${NO_COLOR:-}" ] && [ "${TERM:-dumb}" != dumb ]; then
    bold=$'\e[1m' dim=$'\e[2m' blue=$'\e[36m' plain=$'\e[0m'
else
    bold='' dim='' blue='' plain=''
fi

# A remark of the script.
note() { printf '%s%s%s\n' "$blue" "$*" "$plain"; }

# A new step.
title() { printf '\n%s# %s%s\n' "$bold" "$*" "$plain"; }

# A command as somebody would have typed it.
prompt() {
    local word text=
    for word; do
        case $word in
            *[\'\ ]*) text+=" \"$word\"" ;;
            *) text+=" $word" ;;
        esac
    done
    printf '%s$%s%s\n' "$bold" "$text" "$plain"
}

# What the service logged since the last time, without the time of day.
shown=0
show_log() {
    local lines
    lines=$(tail -n +$((shown + 1)) "$1" | sed 's/^[^ ]*Z //')
    [ -n "$lines" ] || return 0
    shown=$((shown + $(wc -l <<< "$lines")))
    while IFS= read -r line; do printf '%s  | %s%s\n' "$dim" "$line" "$plain"; done <<< "$lines"
}
