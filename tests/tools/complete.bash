# bash complete.bash FILE WORD...: prints what the completion in FILE offers for the last word, a line each.
# shellcheck shell=bash
# shellcheck source=/dev/null
source "$1"
shift
read -r -a rule < <(complete -p quarrin)
for ((index = 0; index < ${#rule[@]}; index++)); do
    [[ ${rule[index]} != -F ]] || function=${rule[index + 1]}
done
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
COMP_LINE=$*
COMP_POINT=${#COMP_LINE}
"$function" quarrin "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
[[ ${#COMPREPLY[@]} -eq 0 ]] || printf '%s\n' "${COMPREPLY[@]}"
