#!/usr/bin/env bash
echo "bench: not yet" >&2
exit 0
