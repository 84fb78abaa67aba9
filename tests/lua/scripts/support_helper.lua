-- A module found beside the test scripts.
return { answer = function() return 42 end }
