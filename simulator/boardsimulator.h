class BoardSimulator;
