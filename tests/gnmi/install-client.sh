#!/bin/sh
# Installs the independent gRPC client of the gNMI tests (@grpc/grpc-js and
# @grpc/proto-loader, from npm) into DIR/node_modules when it is not there.
# A failed installation does not fail: the tests then skip, saying why.
dir=$1
[ -f "$dir/node_modules/@grpc/grpc-js/package.json" ] && [ -f "$dir/node_modules/@grpc/proto-loader/package.json" ] && exit 0
mkdir -p "$dir"
if ! command -v npm >/dev/null 2>&1; then
   echo "no npm here: the gNMI client tests will skip"
   exit 0
fi
npm install --prefix "$dir" --no-audit --no-fund --silent @grpc/grpc-js@1 @grpc/proto-loader@0 ||
   echo "could not install the gRPC client from npm: the gNMI client tests will skip"
exit 0
