# shellcheck shell=dash
# Much more at once than load.sh has: 20,000 changes by 20 processes, and a file of 1 GiB that is written all the time.
# seconds: 1200
EACH=1000
MEGABYTES=1024
. /scenario/load.sh
