#!/usr/bin/env bash
# Writes the benchmark's kep-sim scenarios into DIRECTORY (fixed data, the
# same bytes every time), each one GVariant dictionary in text form:
#   typical.gv  Details of a connected device: 40 printed lines, nested maps
#   large.gv    Details with 20 000 neighbour entries of 4 values each:
#               100 003 printed lines
#   scan.gv     a scan of 5 000 networks, answered without delay
# typical and large are silent (the simulator sends no signal of its own, so
# "off" costs it no mode change signals); scan must not be: its answer is a
# signal.
# Usage: bench/scenarios.sh DIRECTORY
set -euo pipefail
dir=${1:?usage: bench/scenarios.sh DIRECTORY}
mkdir -p "$dir"

cat >"$dir/typical.gv" <<'EOF'
{
  'silent': <true>,
  'Details': <{
    'State': <'connected'>,
    'Mode': <'automatic'>,
    'LogLevel': <2>,
    'Connected': <true>,
    'Wired': <{
      'Interface': <'eth0'>,
      'Mac': <'02:4b:45:50:00:01'>,
      'State': <'up'>,
      'CablePluggedIn': <true>,
      'Speed': <uint32 1000>,
      'Duplex': <'full'>,
      'Method': <'dhcp'>,
      'Address': <'192.168.10.23'>,
      'Netmask': <'255.255.255.0'>,
      'Gateway': <'192.168.10.1'>,
      'Dns': <'192.168.10.1 9.9.9.9'>
    }>,
    'Wireless': <{
      'Interface': <'mlan0'>,
      'Mac': <'02:4b:45:50:00:02'>,
      'State': <'up'>,
      'Ssid': <'Workshop'>,
      'Bssid': <'02:11:22:33:44:01'>,
      'SignalStrength': <-52>,
      'Frequency': <uint32 2437>,
      'Security': <'wpa_psk'>,
      'Method': <'dhcp'>,
      'Address': <'192.168.10.57'>,
      'Netmask': <'255.255.255.0'>,
      'Gateway': <'192.168.10.1'>,
      'Dns': <'192.168.10.1 9.9.9.9'>,
      'KnownNetworks': <3>
    }>,
    'SoftAp': <{
      'Interface': <'uap0'>,
      'Active': <false>,
      'Ssid': <'kep-setup'>,
      'Address': <'10.42.0.1'>,
      'Clients': <{
        '02:aa:bb:cc:dd:01': <{'Address': <'10.42.0.23'>, 'Name': <'service-tablet'>}>
      }>
    }>
  }>
}
EOF

awk 'BEGIN {
    n = 20000
    printf "{\x27silent\x27: <true>, \x27Details\x27: <{\x27State\x27: <\x27connected\x27>,"
    printf " \x27Mode\x27: <\x27automatic\x27>,"
    printf " \x27Neighbours\x27: <{"
    for (i = 0; i < n; i++) {
        printf "%s\n\x27host-%05d\x27: <{\x27Address\x27: <\x2710.%d.%d.%d\x27>, ", \
            (i ? "," : ""), i, int(i / 65536) % 256, int(i / 256) % 256, i % 256
        printf "\x27Mac\x27: <\x2702:4b:00:%02x:%02x:%02x\x27>, ", \
            int(i / 65536) % 256, int(i / 256) % 256, i % 256
        printf "\x27Interface\x27: <\x27%s\x27>, \x27LastSeen\x27: <%d>}>", \
            (i % 3 ? "mlan0" : "eth0"), (i * 7919) % 86400
    }
    printf "\n}>}>}\n"
}' >"$dir/large.gv"

awk 'BEGIN {
    n = 5000
    printf "{\x27scan\x27: <{\x27delay-ms\x27: <uint32 0>, \x27results\x27: <{"
    for (i = 0; i < n; i++) {
        band = i % 4 == 0
        printf "%s\n\x27Network-%04d\x27: <{\x27Bssid\x27: <\x2702:11:%02x:%02x:%02x:%02x\x27>, ", \
            (i ? "," : ""), i, int(i / 16777216) % 256, int(i / 65536) % 256, int(i / 256) % 256, i % 256
        printf "\x27SignalStrength\x27: <%d>, ", -30 - (i * 37) % 61
        printf "\x27Frequency\x27: <uint32 %d>, \x27Security\x27: <\x27%s\x27>}>", \
            (band ? 5180 + 20 * (i % 8) : 2412 + 5 * (i % 13)), (i % 5 == 0 ? "unsecured" : "wpa_psk")
    }
    printf "\n}>}>}\n"
}' >"$dir/scan.gv"
