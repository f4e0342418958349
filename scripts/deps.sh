# Installs the Debian packages a script needs (sourced by the scripts here).
need_packages() {
    local missing=()
    for pkg in "$@"; do
        dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q '^install ok installed$' ||
            missing+=("$pkg")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    if [ "$(id -u)" -ne 0 ]; then
        echo "Missing packages: ${missing[*]}" >&2
        echo "Install them as root: apt-get install -y ${missing[*]}" >&2
        exit 1
    fi
    echo "Installing ${missing[*]} ..."
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
