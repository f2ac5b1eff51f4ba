"use strict";
/* Scenarios in which the reference adapter, debugpy, does otherwise, each with what it does.

   `make test-reference` runs all scenarios with it: those of this table have to fail there, and all others to pass. */

const DIFFERENCES = {};

module.exports = { DIFFERENCES };
