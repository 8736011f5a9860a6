startTestPage('background');
