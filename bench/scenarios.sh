#!/usr/bin/env bash
# Writes the benchmark's kep-sim scenarios into DIRECTORY (fixed data, the
# same bytes every time):
#   typical.json  Details of a connected device: 40 printed lines, nested maps
#   large.json    Details with 20 000 neighbour entries of 4 values each:
#                 about 100 000 printed lines
#   scan.json     a scan of 5 000 networks, answered without delay
# Usage: bench/scenarios.sh DIRECTORY
set -euo pipefail
dir=${1:?usage: bench/scenarios.sh DIRECTORY}
mkdir -p "$dir"

cat >"$dir/typical.json" <<'EOF'
{
  "details": {
    "State": "connected",
    "Mode": "automatic",
    "LogLevel": 2,
    "Connected": true,
    "Wired": {
      "Interface": "eth0",
      "Mac": "02:4b:45:50:00:01",
      "State": "up",
      "CablePluggedIn": true,
      "Speed": {"@u": 1000},
      "Duplex": "full",
      "Method": "dhcp",
      "Address": "192.168.10.23",
      "Netmask": "255.255.255.0",
      "Gateway": "192.168.10.1",
      "Dns": "192.168.10.1 9.9.9.9"
    },
    "Wireless": {
      "Interface": "mlan0",
      "Mac": "02:4b:45:50:00:02",
      "State": "up",
      "Ssid": "Workshop",
      "Bssid": "02:11:22:33:44:01",
      "SignalStrength": -52,
      "Frequency": {"@u": 2437},
      "Security": "wpa_psk",
      "Method": "dhcp",
      "Address": "192.168.10.57",
      "Netmask": "255.255.255.0",
      "Gateway": "192.168.10.1",
      "Dns": "192.168.10.1 9.9.9.9",
      "KnownNetworks": 3
    },
    "SoftAp": {
      "Interface": "uap0",
      "Active": false,
      "Ssid": "kep-setup",
      "Address": "10.42.0.1",
      "Clients": {
        "02:aa:bb:cc:dd:01": {"Address": "10.42.0.23", "Name": "service-tablet"}
      }
    }
  }
}
EOF

awk 'BEGIN {
    n = 20000
    printf "{\"details\": {\"State\": \"connected\", \"Mode\": \"automatic\", \"Neighbours\": {"
    for (i = 0; i < n; i++) {
        printf "%s\n\"host-%05d\": {\"Address\": \"10.%d.%d.%d\", \"Mac\": \"02:4b:00:%02x:%02x:%02x\", ", \
            (i ? "," : ""), i, int(i / 65536) % 256, int(i / 256) % 256, i % 256, \
            int(i / 65536) % 256, int(i / 256) % 256, i % 256
        printf "\"Interface\": \"%s\", \"LastSeen\": %d}", (i % 3 ? "mlan0" : "eth0"), (i * 7919) % 86400
    }
    printf "\n}}}\n"
}' >"$dir/large.json"

awk 'BEGIN {
    n = 5000
    printf "{\"scan\": {\"delay_ms\": 0, \"results\": {"
    for (i = 0; i < n; i++) {
        band = i % 4 == 0
        printf "%s\n\"Network-%04d\": {\"Bssid\": \"02:11:%02x:%02x:%02x:%02x\", \"SignalStrength\": %d, ", \
            (i ? "," : ""), i, int(i / 16777216) % 256, int(i / 65536) % 256, int(i / 256) % 256, i % 256, \
            -30 - (i * 37) % 61
        printf "\"Frequency\": {\"@u\": %d}, \"Security\": \"%s\"}", (band ? 5180 + 20 * (i % 8) : 2412 + 5 * (i % 13)), \
            (i % 5 == 0 ? "unsecured" : "wpa_psk")
    }
    printf "\n}}}\n"
}' >"$dir/scan.json"
