# norvo_agent
