#include "completion/scripts.h"

namespace completion {

// Bash breaks words at '=' and ':' too, and replaces only what is behind the last of them.
const char* const BashScript = R"script(# bash completion for msgbus
_msgbus() {
    local line before= words=()
    read -ra words <<<"${COMP_LINE:0:COMP_POINT}"
    if [[ ${COMP_LINE:0:COMP_POINT} == *[^\\][[:space:]] ]]; then
        words+=('')
    fi
    local current=${words[${#words[@]} - 1]}
    if [[ $current == *[=:]* ]]; then
        before=${current%"${current##*[=:]}"}
    fi
    COMPREPLY=()
    while IFS= read -r line; do
        if [[ $line == :files ]]; then
            compopt -o default
        else
            line=${line%%$'\t'*}
            COMPREPLY+=("$(printf %q "${line#"$before"}")")
        fi
    done < <("${words[0]}" __complete -- "${words[@]:1}" 2>/dev/null)
}
complete -F _msgbus msgbus
)script";

const char* const ZshScript = R"script(#compdef msgbus
_msgbus() {
    local line files=0
    local -a candidates shown
    while IFS= read -r line; do
        if [[ $line == :files ]]; then
            files=1
        else
            candidates+=("${line%%$'\t'*}")
            shown+=("${line/$'\t'/  -- }")
        fi
    done < <("${words[1]}" __complete -- "${(@Q)words[2,CURRENT]}" 2>/dev/null)
    (( files )) && _files
    compadd -l -d shown -a candidates
}
if [[ ${funcstack[1]} == _msgbus ]]; then
    _msgbus "$@"
else
    compdef _msgbus msgbus
fi
)script";

const char* const FishScript = R"script(# fish completion for msgbus
function __msgbus_complete
    set -l words (commandline -opc) (commandline -ct)
    for line in ($words[1] __complete -- $words[2..] 2>/dev/null)
        if test "$line" = :files
            __fish_complete_path (commandline -ct)
        else
            echo $line
        end
    end
end
complete -c msgbus -f -a '(__msgbus_complete)'
)script";

} // namespace completion
