#!/usr/bin/env node
'use strict';
// Velmora's cast v2 sender: node ChromecastSender.js IP [PORT]
// Reads one JSON command per line on stdin and answers each with one XML line on stdout;
// diagnostics go to stderr. See docs/operations.md, "The cast sender".
require('./lib/sender').main(process.argv.slice(2));
